/// @file
/// The size of a page of this processor.
#pragma once
#include <cstddef>

namespace qel::layer {
constexpr std::size_t kPageSize = 4096;
}
