/// @file
/// The address space of the process, region by region.
#pragma once
#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// The walks of the address space end here.
inline constexpr DWORD kWalkEnd = 0x80000000;

/// Calls `visit` with every region from address 0 on, until a query fails or the walk's end is reached. Allocates
/// nothing.
template <class Visit>
void ForEachRegion(Visit&& visit) {
  MEMORY_BASIC_INFORMATION region;
  for (DWORD address = 0; address < kWalkEnd;) {
    if (!VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region)) return;
    visit(region);
    const DWORD next = address + region.RegionSize;
    if (next <= address) return;
    address = next;
  }
}

/// The section of the status report: loaded modules, free regions of 1 MiB and more, sums of the free regions. Returns
/// the number of characters written.
int WriteAddressSpace(std::FILE* stream);

}  // namespace qel::report
