#include "qellog/report/report_head.h"

#include "qelibaselib/base/log_layout.h"

namespace qellog {
namespace {

/// What stands before the time in its line.
std::string_view TimeMark(RecordKind kind) {
  const auto upToTime = [](std::string_view layout) { return layout.substr(0, layout.find('%')); };
  switch (kind) {
    case RecordKind::kExceptionReport:
      return upToTime(qel::layout::kExceptionTime);
    case RecordKind::kStatusReport:
      return upToTime(qel::layout::kStatusTime);
    default:
      return upToTime(qel::layout::kBenchmarkTime);
  }
}

}  // namespace

bool LineCutter::Next(std::string_view& line) {
  if (rest_.empty()) return false;
  const std::size_t end = std::min(rest_.find('\n'), rest_.size());
  line = rest_.substr(0, end);
  rest_.remove_prefix(std::min(end + 1, rest_.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return true;
}

std::optional<Timestamp> ReportTime(std::string_view text, RecordKind kind) {
  constexpr int kLinesOfBanner = 4;
  if (kind == RecordKind::kForeignText || kind == RecordKind::kDamagedLine) return std::nullopt;
  LineCutter lines(text);
  std::string_view line;
  for (int i = 0; i < kLinesOfBanner && lines.Next(line); ++i) {
    if (!line.starts_with(TimeMark(kind))) continue;
    if (const auto time = ParseTime(line.substr(TimeMark(kind).size()), TimeLayout::kWithoutComma)) return time;
  }
  return std::nullopt;
}

}  // namespace qellog
