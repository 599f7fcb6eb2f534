// Blocks of pages, their protections and locks; blocks of the heap.
#include <malloc.h>

#include "test/platform/memory/note_region.h"

namespace qel::test {
namespace {

RECORD(memory, Blocks) {
  record.Line("none");
  ADD("no bytes", VirtualAlloc(nullptr, 0, kCommitAndReserve, PAGE_READWRITE));
  ADD("no type", VirtualAlloc(nullptr, 4096, 0, PAGE_READWRITE));
  for (const DWORD protection : Numbers{0, 3})
    ADD(protection, VirtualAlloc(nullptr, 4096, kCommitAndReserve, protection));
  MEMORY_BASIC_INFORMATION information;
  CALL(VirtualQuery(nullptr, &information, sizeof information - 1));
  const Block byte(1);
  NoteRegion(record, "a byte is a page", byte.base(), byte.base());
  record.Note("granular", reinterpret_cast<uintptr_t>(byte.base()) % kGranularity);
  record.Note("low", reinterpret_cast<uintptr_t>(byte.base()) < 0x80000000);
  record.Note("zeros", std::string(byte.base(), 4096) == std::string(4096, '\0'));

  const Block block(8 * 4096, MEM_RESERVE);
  char* const base = block.base();
  NoteRegion(record, "reserved", base, base);
  CALL(VirtualAlloc(base + 2 * 4096 + 5, 4096, MEM_COMMIT, PAGE_READWRITE) == base + 2 * 4096);
  NoteRegion(record, "the byte 5 behind reaches into this page", base + 3 * 4096, base);
  base[2 * 4096] = 'c';
  CALL(VirtualAlloc(base + 2 * 4096, 4096, MEM_COMMIT, PAGE_READWRITE) == base + 2 * 4096);
  record.Note("kept", std::string(base + 2 * 4096, 1));
  CALL(VirtualFree(base + 2 * 4096, 4096, MEM_DECOMMIT));
  NoteRegion(record, "given back", base, base);
  CALL(VirtualAlloc(base + 2 * 4096, 4096, MEM_COMMIT, PAGE_READWRITE) == base + 2 * 4096);
  record.Note("zero", static_cast<int>(base[2 * 4096]));
  CALL(VirtualAlloc(base + 7 * 4096, 2 * kGranularity, MEM_COMMIT, PAGE_READWRITE));
  CALL(VirtualAlloc(base, 4096, MEM_RESERVE, PAGE_READWRITE));
}

RECORD(memory, Releasing) {
  char* const base = static_cast<char*>(VirtualAlloc(nullptr, 4 * 4096, kCommitAndReserve, PAGE_READWRITE));
  const Handle mapping = CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096);
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  CALL(VirtualFree(base, 4096, MEM_RELEASE));
  CALL(VirtualFree(base, 0, 0));
  CALL(VirtualFree(base, 0, MEM_RELEASE | MEM_DECOMMIT));
  CALL(VirtualFree(view.base(), 0, MEM_RELEASE));
  CALL(VirtualFree(nullptr, 0, MEM_RELEASE));
  CALL(VirtualFree(reinterpret_cast<void*>(0x1234), 0, MEM_RELEASE));
  CALL(VirtualFree(base + 8, 0, MEM_RELEASE));
  record.Note("state", Hex{Query(base).State});
  CALL(VirtualFree(base, 0, MEM_RELEASE));
}

RECORD(memory, Protections) {
  const Block block(4 * 4096);
  char* const base = block.base();
  DWORD previous = 0;
  CALL(VirtualProtect(base + 4096, 4096, PAGE_READONLY, &previous));
  record.Note("previous", previous);
  CALL(VirtualProtect(base + 2 * 4096, 4096, PAGE_NOACCESS, &previous));
  for (int page = 0; page < 3; ++page) NoteRegion(record, "page", base + page * 4096, base);
  CALL(VirtualProtect(base, 4 * 4096, PAGE_READWRITE, &previous));
  NoteRegion(record, "one again", base, base);
  record.Line("refused");
  for (const DWORD protection : Numbers{3, PAGE_WRITECOPY, PAGE_EXECUTE_WRITECOPY})
    ADD(protection, VirtualProtect(base, 4096, protection, &previous));
  ADD("too long", VirtualProtect(base, 0x40000, PAGE_READONLY, &previous));
}

RECORD(memory, Locks) {
  const Block block(4 * 4096), reserved(4096, MEM_RESERVE);
  CALL(VirtualLock(block.base(), 2 * 4096));
  CALL(VirtualUnlock(block.base(), 4096));
  CALL(VirtualUnlock(block.base(), 2 * 4096));
  CALL(VirtualUnlock(block.base() + 4096, 1));
  CALL(VirtualLock(reserved.base(), 4096));
  CALL(VirtualLock(reinterpret_cast<void*>(0x10000), 4096));
  CALL(VirtualUnlock(reserved.base(), 4096));
}

RECORD(memory, GlobalBlocks) {
  for (const DWORD size : Numbers{0, 1, 100'000}) {
    record.Line("bytes", size);
    const HGLOBAL block = ADD("made", GlobalAlloc(GMEM_FIXED, size));
    record.Note("aligned", reinterpret_cast<uintptr_t>(block) % 8);
    ADD("freed", GlobalFree(block));
  }
  auto* const zeroed = static_cast<char*>(GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, 1000));
  record.Line("zeroed").Note("zeros", std::string(zeroed, 1000) == std::string(1000, '\0'));
  GlobalFree(zeroed);
  CALL(GlobalAlloc(GMEM_FIXED, 0xFFFFFF00));
  CALL(GlobalFree(nullptr));
  CALL(_heapchk());
}

}  // namespace
}  // namespace qel::test
