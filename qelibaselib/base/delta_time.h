/// @file
/// Elapsed time.
#pragma once
#include <limits>

#include "qelibaselib/platform/win32.h"

/// Measures from its construction on, by the performance counter, or by ticks where there is none or where the time is
/// longer than it can count.
class CDeltaTime {
 public:
  CDeltaTime() {
    LARGE_INTEGER value;
    if (QueryPerformanceFrequency(&value) && value.QuadPart > 0) {
      frequency_ = value.QuadPart;
      longestSeconds_ = std::numeric_limits<ULONGLONG>::max() / static_cast<ULONGLONG>(frequency_);
      if (QueryPerformanceCounter(&value)) startCount_ = value.QuadPart;
    }
    startTicks_ = GetTickCount();
  }
  CDeltaTime(const CDeltaTime&) = delete;
  CDeltaTime& operator=(const CDeltaTime&) = delete;
  virtual ~CDeltaTime() = default;

  /// Microseconds.
  double ElapsedUs() const {
    constexpr double kUsPerSecond = 1e6, kUsPerMs = 1e3;
    constexpr DWORD kMsPerSecond = 1000;
    LARGE_INTEGER now{};
    if (frequency_) QueryPerformanceCounter(&now);
    const DWORD ticks = GetTickCount() - startTicks_;
    if (frequency_ && (ticks + kMsPerSecond / 2) / kMsPerSecond <= longestSeconds_)
      return static_cast<double>(now.QuadPart - startCount_) / static_cast<double>(frequency_) * kUsPerSecond;
    return ticks * kUsPerMs;
  }

 private:
  LONGLONG frequency_ = 0;  // 0: no counter
  LONGLONG startCount_ = 0;
  DWORD startTicks_;
  ULONGLONG longestSeconds_ = 0;
};
