/// @file
/// System calls that a signal may interrupt.
#pragma once
#include <cerrno>

namespace qel::layer {

/// Calls `call` until it ends otherwise than by a signal (-1 with EINTR), and returns what it returned.
template <class Call>
inline auto RetryOnInterrupt(Call&& call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace qel::layer
