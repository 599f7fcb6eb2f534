#include "qelibaselib/settings/memory_status.h"

#include "qelibaselib/base/delta_time.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/settings/memory_load.h"

namespace {

constexpr DWORD kWalkEnd = 0x80000000;

void SumFreeRegions(DWORD& largest, DWORD& sum) {
  largest = sum = 0;
  MEMORY_BASIC_INFORMATION region;
  for (DWORD address = 0; address < kWalkEnd; address += region.RegionSize) {
    if (VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof(region)) == 0) return;
    if (region.State != MEM_FREE) continue;
    if (region.RegionSize > largest) largest = region.RegionSize;
    sum += region.RegionSize;
  }
}

}  // namespace

void VemoGetMemoryStatus(DWORD* largestFree, DWORD* freeSum, MEMORYSTATUSEX* status, double* seconds) {
  constexpr double kSecondsOfMicrosecond = 0.000001;
  qel::Guarded(QEL_HERE, [&] {
    const CDeltaTime elapsed;
    if (status) qel::ReadMemoryStatus(*status);
    if (largestFree || freeSum) {
      DWORD largest = 0;
      DWORD sum = 0;
      SumFreeRegions(largest, sum);
      if (largestFree) *largestFree = largest;
      if (freeSum) *freeSum = sum;
    }
    if (seconds) *seconds = elapsed.ElapsedUs() * kSecondsOfMicrosecond;
  });
}
