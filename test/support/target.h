// Which system answers a test that runs on both.
#pragma once

namespace qel::test {
#ifdef _WIN32
inline constexpr bool kLinux = false;
#else
inline constexpr bool kLinux = true;
#endif
}  // namespace qel::test
