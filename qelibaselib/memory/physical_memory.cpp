#include "qelibaselib/memory/physical_memory.h"

#include <atomic>

#include "qelibaselib/memory/checked_memory.h"
#include "qelibaselib/memory/source_name.h"

namespace {

constexpr int kStatusClear = 573;
constexpr unsigned long long kDefaultFloorBytes = 256ull << 20;

constinit std::atomic<unsigned long long> g_floorBytes{kDefaultFloorBytes};

}  // namespace

BOOL IsPhysMemShortage(DWORD limitPercent) {
  MEMORYSTATUSEX status;
  _MemSet(&status, 0, sizeof status, kStatusClear, qel::memory::kSourceName);
  status.dwLength = sizeof status;
  GlobalMemoryStatusEx(&status);
  if (status.dwMemoryLoad >= limitPercent) return TRUE;
  return status.ullAvailPhys < g_floorBytes.load(std::memory_order_relaxed);
}

void SetIsPhysMemShortage(unsigned long long floorBytes) { g_floorBytes.store(floorBytes, std::memory_order_relaxed); }
