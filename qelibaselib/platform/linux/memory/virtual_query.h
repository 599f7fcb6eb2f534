/// @file
/// What the address space looks like, for the other memory calls.
#pragma once
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

/// Must follow every change that this process makes to its own address space: the calling thread's reading of the map
/// is not used again.
void ForgetSnapshot();

/// The regions from the one that holds `from` on, by a new reading of the map: at least one, not all of them when there
/// is no memory for a longer list. The list is the thread's own and holds until its next query. An error when the map
/// cannot be read.
DWORD ReadRegions(uintptr_t from, const RegionList** regions);

/// Calls `visit(region)` for each region that holds a part of the range; it returns a Win32 error, which ends the
/// visit.
template <class Visit>
DWORD VisitRegions(const PageRange& range, Visit&& visit) {
  for (uint64_t at = range.start; at < range.end;) {
    const RegionList* regions;
    if (const DWORD error = ReadRegions(static_cast<uintptr_t>(at), &regions)) return error;
    for (uint32_t i = 0; i < regions->size() && at < range.end; ++i) {
      if (const DWORD error = visit((*regions)[i])) return error;
      at = (*regions)[i].end;
    }
  }
  return ERROR_SUCCESS;
}

}  // namespace qel::layer
