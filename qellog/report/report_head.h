/// @file
/// The time of a report, without reading the rest of it.
#pragma once
#include <optional>
#include <string_view>

#include "qellog/record/record.h"

namespace qellog {

/// Nothing when the text is no report or was cut before its time.
std::optional<Timestamp> ReportTime(std::string_view text, RecordKind kind);

/// Cuts texts into lines, whose ends may be "\n" or "\r\n".
class LineCutter {
 public:
  explicit LineCutter(std::string_view text) : rest_(text) {}
  bool Next(std::string_view& line);

 private:
  std::string_view rest_;
};

}  // namespace qellog
