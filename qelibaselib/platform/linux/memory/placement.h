/// @file
/// Where new blocks and views go.
///
/// The problem: the kernel places mappings high, at any page. Callers of Win32 count on multiples of 64 KiB, and walk
/// the address space below 2 GiB only. The idea: one word remembers the place behind the last region, or that of one
/// that was given back, and the next region is put there with a call that fails when something is there already; this
/// costs no more than a plain mmap. Only when it fails is the memory map read for the lowest gap, and when there is
/// none below 2 GiB, the kernel chooses. The word is a hint: threads may overwrite each other's, and the kernel alone
/// decides who gets a place.
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
void* MapAt(uintptr_t base, const MappingRequest& request);

/// Null, with the error of the system in errno, when there is no room.
void* MapAnywhere(const MappingRequest& request);

/// The place of a region that was just unmapped can be the next one.
void OfferPlace(uintptr_t base, uint32_t bytes);

}  // namespace qel::layer
