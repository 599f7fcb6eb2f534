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

// A walk that goes on for longer than this reads the map again, since other threads may have changed it.
constexpr int64_t kSnapshotLifetimeMs = 50;
constexpr uint32_t kQueriesPerLookAtClock = 8;

// The regions from one address on. Only the query that asks for exactly what follows the last answer uses it.
struct Snapshot {
  RegionList regions;
  uint32_t next = 0;      // the address that goes on with the walk; 0 when there is none
  uint32_t position = 0;  // its region
  int64_t takenMs = 0;
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
  MemoryOwner At(uint32_t address) override {
    if (address - start_ >= last_.until - start_) {
      start_ = address;
      last_ = AskTable(address);
    }
    if (last_.type == 0) return AskLoader(address);
    return last_;
  }

 private:
  static MemoryOwner AskTable(uint32_t address) {
    RegionTable table;
    if (const auto region = table.Find(address); region != table.end()) return Ours(address, *region);
    MemoryOwner owner;
    if (const auto next = table.After(address); next != table.end()) owner.until = next->first;
    return owner;
  }
  MemoryOwner AskLoader(uint32_t address) {
    MemoryOwner owner = last_;  // what is not ours stays so up to there
    dl_find_object module;
    if (_dl_find_object(PointerTo(address), &module) == 0) {
      owner.type = MEM_IMAGE;
      owner.base = PageOf(AddressOf(module.dlfo_map_start));
      owner.until = std::min(owner.until, RoundUp(AddressOf(module.dlfo_map_end), kPageBytes));
      owner.allocationProtect = PAGE_EXECUTE_WRITECOPY;
    }
    return owner;
  }
  static MemoryOwner Ours(uint32_t address, const RegionTable::Regions::value_type& entry) {
    const auto& [base, region] = entry;
    MemoryOwner owner;
    owner.type = region.kind == MemoryRegion::Kind::kView ? MEM_MAPPED : MEM_PRIVATE;
    owner.base = base;
    owner.until = region.reserved.ChangeAfter(address, uint64_t{base} + region.bytes);
    owner.allocationProtect = region.protection;
    owner.reserved = region.reserved.Contains(address, uint64_t{address} + 1);
    return owner;
  }

  uint32_t start_ = 0;
  MemoryOwner last_ = {.until = 0};
};

DWORD TakeSnapshot(uint32_t from, RegionList* regions) {
  ArmThreadEnd();
  regions->Clear();
  ProcessOwners owners;
  RegionBuilder builder(from, &owners, regions);
  bool complete = true;
  const DWORD error = ReadMemoryMap([&](const MapLine& line) { return complete = builder.Add(line); });
  if (error != ERROR_SUCCESS) return error;
  if (complete) builder.Finish();
  return regions->size() == 0 ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

bool GoesOn(const Snapshot& snapshot, uint32_t page) {
  return page != 0 && page == snapshot.next && snapshot.position < snapshot.regions.size() &&
         (snapshot.position % kQueriesPerLookAtClock != 0 || CoarseClockMs() - snapshot.takenMs <= kSnapshotLifetimeMs);
}

DWORD Query(uint32_t page, PMEMORY_BASIC_INFORMATION information) {
  Snapshot& snapshot = t_snapshot;
  if (!GoesOn(snapshot, page)) {
    snapshot.next = 0;
    snapshot.position = 0;
    snapshot.takenMs = CoarseClockMs();
    if (const DWORD error = TakeSnapshot(page, &snapshot.regions)) return error;
  }
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

DWORD QueryRegion(uint32_t address, AddressRegion* region) {
  t_snapshot.next = 0;
  const DWORD error = TakeSnapshot(address, &t_snapshot.regions);
  if (error == ERROR_SUCCESS) *region = t_snapshot.regions[0];
  return error;
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
