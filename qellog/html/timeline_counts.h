/// @file
/// How many records each channel has over time, in at most two thousand steps.
#pragma once
#include <string>
#include <vector>

#include "qellog/record/timestamp.h"

namespace qellog {

/// The range of time is not known in advance: the steps begin narrow and are joined in pairs whenever they get too
/// many.
class TimelineCounts {
 public:
  explicit TimelineCounts(std::size_t channels) : counts_(channels) {}
  void Add(std::size_t channel, Timestamp time);
  /// {"start": milliseconds, "width": milliseconds, "counts": [[...], ...]}
  std::string Json() const;

 private:
  void JoinPairs();
  static constexpr std::size_t kMostSteps = 2000;
  bool hasStart_ = false;
  Timestamp start_;
  std::int64_t width_ = 1;
  std::vector<std::vector<std::uint32_t>> counts_;  ///< by channel and step
};

}  // namespace qellog
