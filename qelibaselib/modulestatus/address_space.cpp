#include "qelibaselib/modulestatus/address_space.h"

#include <algorithm>

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/mebibytes.h"

namespace qel::report {
namespace {

constexpr int kHeapCheckAtEntry = 540;
constexpr DWORD kListedFreeBytes = kBytesPerMebibyte;

struct FreeSums {
  DWORD total = 0;
  DWORD of16MebibytesAndMore = 0;
  DWORD of32MebibytesAndMore = 0;
  DWORD largest = 0;

  void Add(DWORD bytes) {
    total += bytes;
    if (bytes >= 16 * kBytesPerMebibyte) of16MebibytesAndMore += bytes;
    if (bytes >= 32 * kBytesPerMebibyte) of32MebibytesAndMore += bytes;
    largest = std::max(largest, bytes);
  }
};

/// The line of a module; nothing when the address is not the handle of one.
void WriteModule(ReportStream& out, const MEMORY_BASIC_INFORMATION& region) {
  if (region.BaseAddress != region.AllocationBase) return;
  const auto module = static_cast<HMODULE>(region.BaseAddress);
  char path[MAX_PATH];
  MODULEINFO information;
  if (!GetModuleFileNameA(module, path, MAX_PATH)) return;
  if (!GetModuleInformation(GetCurrentProcess(), module, &information, sizeof information)) return;
  path[MAX_PATH - 1] = '\0';
  const auto base = reinterpret_cast<DWORD>(information.lpBaseOfDll);
  out.Print("%08lx - %08lx ( %08lx ) : %s\n", base, base + information.SizeOfImage,
            reinterpret_cast<DWORD>(information.EntryPoint), PathFindFileNameA(path));
}

void WriteFreeRegion(ReportStream& out, const MEMORY_BASIC_INFORMATION& region) {
  if (region.RegionSize < kListedFreeBytes) return;
  const auto start = reinterpret_cast<DWORD>(region.BaseAddress);
  const DWORD bytes = region.RegionSize;
  out.Print("%08lx - %08lx ( %6lu MBytes ) : MEM_FREE\n", start, start + bytes, Mebibytes(bytes));
}

void WriteSums(ReportStream& out, const FreeSums& sums) {
  // Japanese in code page 932, as bytes: free space; free space in regions of 16 MB and more; of 32 MB and more;
  // largest region of free space. They are written unchanged.
  const struct {
    const char* label;
    DWORD bytes;
  } lines[] = {
      {"\x8B\xF3\x82\xAB\x97\x65\x97\xCA         ", sums.total},
      {"16MB\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA ", sums.of16MebibytesAndMore},
      {"32MB\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA ", sums.of32MebibytesAndMore},
      {"\x98\x41\x91\xB1\x8B\xF3\x82\xAB\x97\x65\x97\xCA     ", sums.largest},
  };
  for (const auto& [label, bytes] : lines) {
    out.Print("%s= %11lu Bytes ( %6lu MBytes )\n", label, bytes, Mebibytes(bytes));
  }
}

}  // namespace

int WriteAddressSpace(std::FILE* stream) {
  ReportStream out(stream);
  GuardedReport(QEL_HERE, "DebugOutVirtualMemoryStatus", [&] {
    CheckHeap(kHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kAddressSpaceHeading);
    FreeSums sums;
    ForEachRegion([&](const MEMORY_BASIC_INFORMATION& region) {
      if (region.State == MEM_COMMIT && region.Type == MEM_IMAGE) {
        WriteModule(out, region);
      } else if (region.State == MEM_FREE) {
        WriteFreeRegion(out, region);
        sums.Add(region.RegionSize);
      }
    });
    WriteSums(out, sums);
  });
  return out.written();
}

}  // namespace qel::report
