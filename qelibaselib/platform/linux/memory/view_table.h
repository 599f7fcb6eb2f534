/// @file
/// The views and blocks that this process was given, found by any address inside them.
///
/// The kernel joins neighbours that look alike and splits what has several protections, so it cannot say where an
/// allocation begins and ends, what it was asked for with, or which pages are only reserved. This table can. An entry
/// is made after the memory is mapped and removed before it is unmapped, so that an address in the table is always
/// ours; in the moment between, a query sees memory of an unknown owner. The table is the process's own and ends with
/// it; a forked child has a copy, as it has of the memory.
#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/memory/page_set.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

struct MemoryRegion {
  enum class Kind : uint8_t { kView, kBlock };
  Kind kind;
  uint32_t bytes;         ///< whole pages
  DWORD protection;       ///< as asked for at the allocation
  PageSet reserved = {};  ///< pages of a block that are not committed
  PageSet copied = {};    ///< pages of a view that VirtualProtect has made copy-on-write
  /// What a view shows, from `offset` on.
  std::shared_ptr<const MappedDescriptor> contents = nullptr;
  uint64_t offset = 0;
  bool isFile = false;  ///< whether a file stands behind the view
};

/// Goes up with every view or block that is given out or back.
uint32_t RegionChanges();

/// The table, locked while this lives. It is counted among what a process can leak.
class RegionTable {
 public:
  using Regions = std::map<uintptr_t, MemoryRegion>;

  RegionTable();
  Regions::iterator Find(uintptr_t address);  ///< the region that holds the address, or end()
  Regions::iterator After(uintptr_t address);
  Regions::iterator end();
  /// False without memory.
  bool Insert(uintptr_t base, MemoryRegion region);
  MemoryRegion Remove(Regions::iterator region);

 private:
  std::lock_guard<std::mutex> lock_;
};

extern const ForkedPart kViewTableAtFork;

}  // namespace qel::layer
