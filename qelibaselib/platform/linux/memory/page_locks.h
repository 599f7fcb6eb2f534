/// @file
/// Pages that VirtualLock keeps in memory.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/base/forked_part.h"

namespace qel::layer {

/// Memory that is given back takes its locks along.
void ForgetLocks(uintptr_t start, uint64_t bytes);

extern const ForkedPart kPageLocksAtFork;

}  // namespace qel::layer
