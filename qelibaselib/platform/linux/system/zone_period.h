/// @file
/// The local time of a zone at one instant.
#pragma once
#include <cstdint>

namespace qel::layer {

/// Local time is `secondsEast` ahead of UTC from `from` on and before `until`; both are seconds since 1970.
struct ZonePeriod {
  int64_t from = INT64_MIN, until = INT64_MAX;
  int32_t secondsEast = 0;
};

}  // namespace qel::layer
