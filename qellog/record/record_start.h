/// @file
/// Tells which lines of a file start a record and which go on with the one before.
///
/// A line of a channel starts with a time. A report starts with its banner, and a banner holds lines that look like its
/// start: an exception report has the same two separators above and below, and the status report at its end has a
/// banner of its own. So the recogniser keeps where in a report it stands.
#pragma once
#include <optional>
#include <string_view>

#include "qellog/record/channel.h"
#include "qellog/record/record.h"

namespace qellog {

class RecordStart {
 public:
  explicit RecordStart(FileRole role) : role_(role) {}

  /// How much of a line has to be seen to know.
  static constexpr std::size_t kLookAhead = 128;

  /// To be called for every line in turn. `ahead` begins with the line and may reach beyond it. Returns the kind of the
  /// record that it starts (kLine for one that may yet prove damaged), or nothing when it goes on with the one before.
  std::optional<RecordKind> Next(std::string_view ahead);

  /// Whether the input, which ends with `last`, ends inside the time of a line that is being written.
  bool EndsInTime(std::string_view last) const;

  /// Whether a line of a channel starts here; needs no state.
  static bool StartsLine(std::string_view ahead) { return LooksLikeTime(ahead, TimeLayout::kWithComma); }

 private:
  enum class Place {
    kOutside,          ///< before a report, or in lines
    kUpperSeparators,  ///< in an exception report, above the time
    kBanner,           ///< between its separators
    kLowerSeparators,  ///< behind the counters
    kExceptionBody,    ///< before the status report at its end
    kStatusAtEnd,      ///< in that report
    kReport,           ///< in a status or benchmark report
  };
  bool Takes(FileRole role) const { return role_ == role || role_ == FileRole::kMixed; }
  bool TakesLines() const { return Takes(FileRole::kChannel) || role_ == FileRole::kDayHistory; }
  std::optional<RecordKind> StartReport(std::string_view line, std::string_view ahead);
  bool StartsException(std::string_view line);
  void FollowException(std::string_view line);
  std::optional<RecordKind> StartStatus();

  FileRole role_;
  Place place_ = Place::kOutside;
  bool afterBlankLine_ = true;
};

}  // namespace qellog
