/// @file
/// What the address space looks like, for the other memory calls.
#pragma once
#include "qelibaselib/platform/linux/memory/regions.h"

namespace qel::layer {

/// Must follow every change that this process makes to its own address space: the calling thread's reading of the map
/// is not used again.
void ForgetSnapshot();

/// The pages of one kind around an address, from a new reading of the map. An error when it cannot be read.
DWORD QueryRegion(uint32_t address, AddressRegion* region);

}  // namespace qel::layer
