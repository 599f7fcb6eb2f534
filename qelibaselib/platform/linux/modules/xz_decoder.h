/// @file
/// Unpacks an .xz file in memory, as far as mini debug information needs it: one stream of one block, packed by LZMA2.
#pragma once
#include <cstdint>
#include <span>

#include "qelibaselib/platform/linux/modules/mapped_pages.h"

namespace qel::layer {

/// The unpacked bytes on pages of their own, `size` of them. No pages for anything that is damaged, packed otherwise or
/// larger than 64 MiB. Check sums are not looked at: what is wrong gives wrong names, not faults.
MappedPages DecodeXz(std::span<const uint8_t> packed, std::size_t& size);

}  // namespace qel::layer
