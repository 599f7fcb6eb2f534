/// @file
/// A cheap clock.
#pragma once
#include <cstdint>
#include <ctime>

namespace qel::layer {

/// Monotonic time in nanoseconds with a resolution of a few milliseconds; costs a quarter of the exact time, and no
/// system call.
inline int64_t CoarseNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

}  // namespace qel::layer
