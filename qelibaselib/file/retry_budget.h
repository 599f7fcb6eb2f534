/// @file
/// How long and how often a call is tried again.
#pragma once
#include <algorithm>

#include "qelibaselib/platform/win32.h"

namespace qel {

class RetryBudget {
 public:
  RetryBudget(DWORD timeoutMs, DWORD intervalMs)
      : timeoutMs_(timeoutMs), intervalMs_(std::min(intervalMs, kLongestIntervalMs)), leftMs_(timeoutMs) {}

  DWORD TimeoutMs() const { return timeoutMs_; }
  /// After clamping.
  DWORD IntervalMs() const { return intervalMs_; }
  DWORD RetryCount() const { return retryCount_; }

  /// Whether another attempt follows a failure with `error`. A file that somebody else holds is waited for as long as
  /// the budget lasts, anything else is unlikely to mend and gets a limited number of attempts.
  bool AllowsRetry(DWORD error) const {
    return (error == ERROR_SHARING_VIOLATION || retryCount_ < kMostRetriesOfOtherErrors) &&
           (timeoutMs_ == INFINITE || CoversInterval());
  }
  /// Takes the interval from the budget and sleeps it.
  void WaitForRetry() {
    if (timeoutMs_ != INFINITE) leftMs_ -= intervalMs_;
    ++retryCount_;
    Sleep(intervalMs_);
  }

  /// The rule of quiet retries: sleep first, no limit of attempts, and an interval of 0 uses the budget up too. Returns
  /// whether another attempt follows.
  bool SpendInterval() {
    if (timeoutMs_ == INFINITE) return true;
    if (!CoversInterval()) return false;
    leftMs_ -= std::max(intervalMs_, kLeastSpentMs);
    return true;
  }

 private:
  static constexpr DWORD kLongestIntervalMs = 60000;
  static constexpr DWORD kMostRetriesOfOtherErrors = 10;
  static constexpr DWORD kLeastSpentMs = 1;

  bool CoversInterval() const { return leftMs_ != 0 && leftMs_ >= intervalMs_; }

  const DWORD timeoutMs_;
  const DWORD intervalMs_;
  DWORD leftMs_;
  DWORD retryCount_ = 0;
};

}  // namespace qel
