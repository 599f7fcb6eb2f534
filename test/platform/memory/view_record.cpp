// Views: what may be mapped where, unmapping, flushing, protections; and that all ways into a file show the same bytes.
#include "test/platform/memory/note_region.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

RECORD(memory, RangesOfViews) {
  const MappedFile file(kGranularity + 10);
  const Handle mapping = CreateMapping(file.handle(), PAGE_READWRITE);
  const std::pair<DWORD, DWORD> ranges[] = {{4096, 0},
                                            {kGranularity, 10},
                                            {kGranularity, 11},
                                            {kGranularity, 0},
                                            {0, kGranularity + 10},
                                            {0, kGranularity + 11},
                                            {2 * kGranularity, 0}};
  for (const auto& [offset, bytes] : ranges) {
    record.Line("from", Hex{offset}, "bytes", Hex{bytes});
    const View view = ADD("view", View(mapping, FILE_MAP_READ, offset, bytes));
    if (view) record.Note("bytes", Query(view).RegionSize);
  }
  const View rest(mapping, FILE_MAP_READ, kGranularity, 0);
  record.Line("the file's end").Note("last", std::string(&rest[9], 1));
  record.Note("behind", static_cast<int>(rest[10]));
  const Handle memory = CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 100);
  record.Line("the page file counts by the page");
  for (const DWORD bytes : Numbers{4096, 4097}) ADD(bytes, View(memory, FILE_MAP_READ, 0, bytes));
}

RECORD(memory, AccessOfViews) {
  const MappedFile file(10);
  const Handle reading = CreateMapping(file.handle(), PAGE_READONLY), event = NewEvent(),
               copying = CreateMapping(file.handle(), PAGE_WRITECOPY);
  record.Line("of a mapping to read");
  for (const DWORD access : Numbers{FILE_MAP_WRITE, FILE_MAP_ALL_ACCESS, FILE_MAP_READ, FILE_MAP_COPY})
    ADD(Hex{access}, View(reading, access, 0, 0));
  record.Line("of what is none");
  for (const HANDLE bad : {HANDLE(nullptr), INVALID_HANDLE_VALUE, file.handle(), HANDLE(event)})
    ADD(bad == event ? "event" : "handle", View(bad, FILE_MAP_READ, 0, 0));
  const View copy(copying, FILE_MAP_COPY, 0, 0), shown(reading, FILE_MAP_READ, 0, 0), nothing(reading, 0, 0, 0);
  copy[0] = 'c';
  record.Line("a copy is the view's own").Note("shown", std::string(shown.base(), 1));
  record.Note("file", file.Contents());
  record.Line("no access").Note("protection", Query(nothing).Protect);
}

RECORD(memory, OneFileByAllWays) {
  MappedFile file(10);
  const Handle mapping = CreateMapping(file.handle(), PAGE_READWRITE);
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  view[0] = 'v';
  char bytes[4] = {};
  DWORD count = 0;
  CALL(ReadFile(file.handle(), bytes, 2, &count, nullptr));
  record.Note("bytes", std::string(bytes));
  CALL(WriteFile(file.handle(), "w", 1, &count, nullptr));
  record.Note("shown", std::string(&view[2], 1));
  file.Close();  // a view needs no handle
  view[3] = 'y';
  record.Line("file").Note("holds", file.Contents());
}

RECORD(memory, Unmapping) {
  const MappedFile file(10000);
  const Handle mapping = CreateMapping(file.handle(), PAGE_READWRITE);
  for (const DWORD inside : Numbers{0, 5000, 10000}) {
    char* const base = View(mapping, FILE_MAP_WRITE, 0, 0).Release();
    record.Line("by byte", inside);
    ADD("unmap", UnmapViewOfFile(base + inside));
    record.Note("state", Hex{Query(base + 8192).State});
    ADD("again", UnmapViewOfFile(base));
  }
  char local = 0;
  const Block block(4096);
  record.Line("no view");
  for (void* const bad : {static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234), static_cast<void*>(&local),
                          static_cast<void*>(block.base())})
    ADD(bad ? "address" : "null", UnmapViewOfFile(bad));
}

RECORD(memory, Flushing) {
  MappedFile file(2 * kGranularity);
  Handle mapping = CreateMapping(file.handle(), PAGE_READWRITE);
  const View view(mapping, FILE_MAP_WRITE, 0, kGranularity), second(mapping, FILE_MAP_WRITE, kGranularity, 0),
      copy(mapping, FILE_MAP_COPY, 0, 0), reading(mapping, FILE_MAP_READ, 0, 0);
  const Handle memory = CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096), other = file.Open(GENERIC_READ);
  const View pages(memory, FILE_MAP_WRITE, 0, 0);
  view[0] = copy[0] = pages[0] = 'f';
  CALL(FlushViewOfFile(view, 0));
  CALL(FlushViewOfFile(view.base() + 5000, 0));
  CALL(FlushViewOfFile(view.base() + 100, 8000));
  CALL(FlushViewOfFile(view, kGranularity + 1));
  CALL(FlushViewOfFile(copy, 0));
  CALL(FlushViewOfFile(reading, 0));
  CALL(FlushViewOfFile(pages, 0));
  OVERLAPPED place = {};
  place.Offset = kGranularity + 5;
  CALL(LockFileEx(other, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place));
  CALL(FlushViewOfFile(second.base(), 0));
  CALL(FlushViewOfFile(view, 0));
  CALL(UnlockFileEx(other, 0, 1, 0, &place));
  CALL(FlushViewOfFile(second, 0));
  mapping.Close();
  file.Close();
  CALL(FlushViewOfFile(view.base(), 0));
  CALL(FlushViewOfFile(nullptr, 0));
}

RECORD(memory, RegionsOfViews) {
  const MappedFile file(3 * 4096 + 1);
  const Handle mapping = CreateMapping(file.handle(), PAGE_READWRITE);
  for (const DWORD access : Numbers{FILE_MAP_WRITE, FILE_MAP_READ, FILE_MAP_COPY}) {
    const View view(mapping, access, 0, 0);
    NoteRegion(record, "whole", view, view.base());
    NoteRegion(record, "rest", view.base() + 0x1005, view.base());
  }
}

}  // namespace
}  // namespace qel::test
