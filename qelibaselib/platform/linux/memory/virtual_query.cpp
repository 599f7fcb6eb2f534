#include "qelibaselib/platform/linux/memory/virtual_query.h"

#include <dlfcn.h>
#include <time.h>

#include <algorithm>

#include "qelibaselib/platform/linux/memory/memory_map.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

// A walk over the whole address space asks for one region after the other. Reading the map for each would make the cost
// grow with the square of the number of mappings, so the first query keeps all regions from its address on, and a query
// for exactly the address that follows the last answer is given the next of them. Other threads may have changed the
// map meanwhile, so the regions are read again after a while. That while grows with the time that the reading took: a
// walk over a map that takes long to read would otherwise do nothing but read.
constexpr int64_t kShortestLifetimeMs = 50;
constexpr int64_t kLifetimePerReadingTime = 4;
constexpr uint32_t kQueriesPerLookAtClock = 8;

struct Snapshot {
  RegionList regions;
  uintptr_t next = 0;     // the address that goes on with the walk; 0 when there is none
  uint32_t position = 0;  // its region
  int64_t endsMs = 0;
};
thread_local constinit Snapshot t_snapshot;

int64_t CoarseClockMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * 1000ll + now.tv_nsec / 1000000;
}

// Our own views and blocks, then the loaded modules. The last answer is kept, since lines come in rising order.
class ProcessOwners : public MemoryOwners {
 public:
  MemoryOwner At(uintptr_t address) override {
    if (address - start_ >= last_.until - start_) {
      start_ = address;
      last_ = AskTable(address);
    }
    if (last_.type == 0) return AskLoader(address);
    return last_;
  }

 private:
  static MemoryOwner AskTable(uintptr_t address) {
    RegionTable table;
    if (const auto region = table.Find(address); region != table.end()) return Ours(address, *region);
    MemoryOwner owner;
    if (const auto next = table.After(address); next != table.end()) owner.until = next->first;
    return owner;
  }
  MemoryOwner AskLoader(uintptr_t address) {
    MemoryOwner owner = last_;  // what is not ours stays so up to there
    dl_find_object module;
    if (_dl_find_object(PointerTo(address), &module) == 0) {
      owner.type = MEM_IMAGE;
      owner.base = PageOf(AddressOf(module.dlfo_map_start));
      owner.until = std::min(owner.until, RoundUp(AddressOf(module.dlfo_map_end), kPageSize));
      owner.allocationProtect = PAGE_EXECUTE_WRITECOPY;
    }
    return owner;
  }
  static MemoryOwner Ours(uintptr_t address, const RegionTable::Regions::value_type& entry) {
    const auto& [base, region] = entry;
    MemoryOwner owner;
    owner.type = region.kind == MemoryRegion::Kind::kView ? MEM_MAPPED : MEM_PRIVATE;
    owner.base = base;
    owner.until = region.reserved.ChangeAfter(address, uint64_t{base} + region.bytes);
    owner.allocationProtect = region.protection;
    owner.reserved = region.reserved.Contains(address, uint64_t{address} + 1);
    return owner;
  }

  uintptr_t start_ = 0;
  MemoryOwner last_ = {.until = 0};
};

DWORD ListRegions(uintptr_t from, RegionList* regions) {
  ArmThreadEnd();
  regions->Clear();
  ProcessOwners owners;
  RegionBuilder builder(from, &owners, regions);
  MemoryMapReader map;
  bool hasPlace = true;
  for (MapLine line; hasPlace && map.Next(&line);) hasPlace = builder.Add(line);
  if (map.error() != ERROR_SUCCESS) return map.error();
  if (hasPlace) builder.Finish();
  return regions->size() == 0 ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

bool GoesOn(const Snapshot& snapshot, uintptr_t page) {
  return page != 0 && page == snapshot.next && snapshot.position < snapshot.regions.size() &&
         (snapshot.position % kQueriesPerLookAtClock != 0 || CoarseClockMs() <= snapshot.endsMs);
}

DWORD TakeSnapshot(uintptr_t from, Snapshot* snapshot) {
  snapshot->next = 0;
  snapshot->position = 0;
  const int64_t beginMs = CoarseClockMs();
  const DWORD error = ListRegions(from, &snapshot->regions);
  const int64_t endMs = CoarseClockMs();
  snapshot->endsMs = endMs + std::max(kShortestLifetimeMs, kLifetimePerReadingTime * (endMs - beginMs));
  return error;
}

DWORD Query(uintptr_t page, PMEMORY_BASIC_INFORMATION information) {
  Snapshot& snapshot = t_snapshot;
  if (!GoesOn(snapshot, page))
    if (const DWORD error = TakeSnapshot(page, &snapshot)) return error;
  const AddressRegion& region = snapshot.regions[snapshot.position++];
  snapshot.next = region.end;  // 0 at the end of the address space
  information->BaseAddress = PointerTo(page);
  information->AllocationBase = PointerTo(region.allocationBase);
  information->AllocationProtect = region.allocationProtect;
  information->RegionSize = region.end - page;
  information->State = region.state;
  information->Protect = region.protect;
  information->Type = region.type;
  return ERROR_SUCCESS;
}

}  // namespace

void ForgetSnapshot() { t_snapshot.next = 0; }

void FreeSnapshot() {
  t_snapshot.next = 0;
  t_snapshot.regions.Free();
}

DWORD ReadRegions(uintptr_t from, const RegionList** regions) {
  ForgetSnapshot();
  *regions = &t_snapshot.regions;
  return ListRegions(from, &t_snapshot.regions);
}

}  // namespace qel::layer

SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length) {
  using namespace qel::layer;
  DWORD error = ERROR_BAD_LENGTH;
  if (length >= sizeof *information)
    error = information ? Query(PageOf(AddressOf(address)), information) : ERROR_NOACCESS;
  if (error == ERROR_SUCCESS) return sizeof *information;
  SetLastError(error);
  return 0;
}
