/// @file
/// Where new blocks and views go: multiples of 64 KiB, below 2 GiB first.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// What mmap is to be given besides the address.
struct MappingRequest {
  size_t bytes;
  int protection, flags, descriptor;
  off_t offset;
};

/// At this very address or not at all (EEXIST when something is there).
void* MapAt(uint32_t base, const MappingRequest& request);

/// Null, with the error of the system in errno, when there is no room.
void* MapAnywhere(const MappingRequest& request);

/// The place of a region that was just unmapped can be the next one.
void OfferPlace(uint32_t base, uint32_t bytes);

}  // namespace qel::layer
