#include "qelibaselib/platform/linux/memory/view_table.h"

#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/never_destroyed.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"

namespace qel::layer {
namespace {

constinit std::mutex g_mutex;
constinit std::atomic<uint32_t> g_changes{0};

RegionTable::Regions& All() {
  static NeverDestroyed<RegionTable::Regions> regions;
  return *regions;
}

}  // namespace

const ForkedPart kViewTableAtFork = {[] { g_mutex.lock(); }, [](bool) { g_mutex.unlock(); }};

uint32_t RegionChanges() { return g_changes.load(std::memory_order_relaxed); }

RegionTable::RegionTable() : lock_(g_mutex) {}

RegionTable::Regions::iterator RegionTable::end() { return All().end(); }

RegionTable::Regions::iterator RegionTable::After(uintptr_t address) { return All().upper_bound(address); }

RegionTable::Regions::iterator RegionTable::Find(uintptr_t address) {
  auto region = After(address);
  if (region == All().begin()) return end();
  --region;
  return address - region->first < region->second.bytes ? region : end();
}

bool RegionTable::Insert(uintptr_t base, MemoryRegion region) try {
  All().insert_or_assign(base, std::move(region));
  CountOpened();
  g_changes.fetch_add(1, std::memory_order_relaxed);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

MemoryRegion RegionTable::Remove(Regions::iterator region) {
  MemoryRegion removed = std::move(region->second);
  All().erase(region);
  CountClosed();
  return removed;
}

}  // namespace qel::layer
