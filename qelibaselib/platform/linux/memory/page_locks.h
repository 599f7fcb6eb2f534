/// @file
/// Pages that VirtualLock keeps in memory.
#pragma once
#include <cstdint>

namespace qel::layer {

/// Memory that is given back takes its locks along.
void ForgetLocks(uint32_t start, uint64_t bytes);

}  // namespace qel::layer
