#include "qellog/html/timeline_counts.h"

namespace qellog {

void TimelineCounts::Add(std::size_t channel, Timestamp time) {
  if (!hasStart_) start_ = time;
  hasStart_ = true;
  const std::int64_t distance = time < start_ ? 0 : time.milliseconds - start_.milliseconds;
  while (distance / width_ >= static_cast<std::int64_t>(kMostSteps)) JoinPairs();
  auto& counts = counts_[channel];
  const auto step = static_cast<std::size_t>(distance / width_);
  if (counts.size() <= step) counts.resize(step + 1);
  ++counts[step];
}

void TimelineCounts::JoinPairs() {
  width_ *= 2;
  for (auto& counts : counts_) {
    for (std::size_t i = 0; i < counts.size(); i += 2)
      counts[i / 2] = counts[i] + (i + 1 < counts.size() ? counts[i + 1] : 0);
    counts.resize((counts.size() + 1) / 2);
  }
}

std::string TimelineCounts::Json() const {
  std::string text =
      "{\"start\":" + std::to_string(start_.milliseconds) + ",\"width\":" + std::to_string(width_) + ",\"counts\":[";
  for (std::size_t channel = 0; channel < counts_.size(); ++channel) {
    text += channel > 0 ? ",[" : "[";
    for (std::size_t i = 0; i < counts_[channel].size(); ++i)
      text += (i > 0 ? "," : "") + std::to_string(counts_[channel][i]);
    text += "]";
  }
  return text + "]}";
}

}  // namespace qellog
