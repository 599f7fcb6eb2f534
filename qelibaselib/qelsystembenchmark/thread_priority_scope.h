/// @file
/// A thread's priority, raised for a measurement.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// Runs the calling thread time-critical for the length of the scope.
class TimeCriticalScope {
 public:
  TimeCriticalScope() : previous_(GetThreadPriority(GetCurrentThread())) {
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
  }
  TimeCriticalScope(const TimeCriticalScope&) = delete;
  TimeCriticalScope& operator=(const TimeCriticalScope&) = delete;
  ~TimeCriticalScope() { SetThreadPriority(GetCurrentThread(), previous_); }

 private:
  const int previous_;
};

}  // namespace qel
