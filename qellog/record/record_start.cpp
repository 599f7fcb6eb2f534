#include "qellog/record/record_start.h"

#include "qelibaselib/base/log_layout.h"
#include "qellog/record/heading.h"

namespace qellog {
namespace {

namespace layout = qel::layout;

/// A heading of the layout as it stands in a line: without its line feed.
constexpr std::string_view Heading(std::string_view text) { return TextBefore(text, '\n'); }

std::string_view LineOf(std::string_view ahead) {
  std::string_view line = ahead.substr(0, ahead.find('\n'));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

std::string_view SecondLineOf(std::string_view ahead) {
  const std::size_t end = ahead.find('\n');
  return end == ahead.npos ? std::string_view() : LineOf(ahead.substr(end + 1));
}

/// The banner's first line is like others of it; only behind the first stands the same once more.
bool StartsStatusBanner(std::string_view line, std::string_view ahead) {
  constexpr std::string_view kBanner = Heading(layout::kStatusBannerLine);
  return line == kBanner && SecondLineOf(ahead) == kBanner;
}

}  // namespace

std::optional<RecordKind> RecordStart::Next(std::string_view ahead) {
  if (TakesLines() && StartsLine(ahead)) {
    place_ = Place::kOutside;
    afterBlankLine_ = false;
    return RecordKind::kLine;
  }
  if (role_ == FileRole::kChannel || role_ == FileRole::kDayHistory) return std::nullopt;
  const std::string_view line = LineOf(ahead);
  const auto started = StartReport(line, ahead);
  afterBlankLine_ = line.empty();
  return started;
}

bool RecordStart::EndsInTime(std::string_view last) const {
  return TakesLines() && !last.empty() && LooksLikeStartOfTime(last);
}

std::optional<RecordKind> RecordStart::StartReport(std::string_view line, std::string_view ahead) {
  if (Takes(FileRole::kExceptionReports)) {
    if (StartsException(line)) return RecordKind::kExceptionReport;
    FollowException(line);
  }
  if (Takes(FileRole::kBenchmarkReports) && line == Heading(layout::kBenchmarkHeading)) {
    place_ = Place::kReport;
    return RecordKind::kBenchmarkReport;
  }
  return StartsStatusBanner(line, ahead) ? StartStatus() : std::nullopt;
}

bool RecordStart::StartsException(std::string_view line) {
  if (line != Heading(layout::kExceptionSeparator)) return false;
  const bool continuesBanner =
      (place_ == Place::kUpperSeparators || place_ == Place::kLowerSeparators) && !afterBlankLine_;
  if (continuesBanner) return false;
  place_ = Place::kUpperSeparators;
  return true;
}

void RecordStart::FollowException(std::string_view line) {
  constexpr std::string_view kCounters = std::string_view(layout::kExceptionCounters).substr(0, 14);  // up to "TC="
  if (line.starts_with(kCounters)) {
    place_ = Place::kLowerSeparators;
  } else if (place_ == Place::kUpperSeparators && line != Heading(layout::kExceptionSeparator)) {
    place_ = Place::kBanner;
  } else if (place_ == Place::kLowerSeparators && line != Heading(layout::kExceptionSeparator)) {
    place_ = Place::kExceptionBody;
  }
}

std::optional<RecordKind> RecordStart::StartStatus() {
  switch (place_) {
    case Place::kUpperSeparators:
    case Place::kBanner:
    case Place::kLowerSeparators:
      return std::nullopt;
    case Place::kExceptionBody:
      place_ = Place::kStatusAtEnd;
      return std::nullopt;
    case Place::kStatusAtEnd:
    case Place::kOutside:
    case Place::kReport:
      break;
  }
  if (!Takes(FileRole::kStatusReports)) return std::nullopt;
  place_ = Place::kReport;
  return RecordKind::kStatusReport;
}

}  // namespace qellog
