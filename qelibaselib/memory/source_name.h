/// @file
/// The name that goes with the subsystem's fixed line numbers.
#pragma once

namespace qel::memory {
inline constexpr char kSourceName[] = "memory.cpp";
}  // namespace qel::memory
