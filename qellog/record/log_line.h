/// @file
/// One line of a channel or day history, taken apart.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qellog/record/timestamp.h"

namespace qellog {

/// The fields are views into the text that was parsed.
struct LogLine {
  Timestamp time;
  std::optional<std::uint32_t> memoryLoad;  ///< percent; a day history tells none
  std::string_view program;
  std::uint32_t processId = 0;
  std::uint32_t threadId = 0;
  std::string_view sourceFile;
  std::int32_t sourceLine = 0;
  std::string_view message;  ///< may go on over several lines, each with the file's own line end
};

/// The line that the whole text is; nothing when it does not begin with a time or lacks one of its fields.
std::optional<LogLine> ParseLine(std::string_view text);

/// Where a second line starts inside a text that starts with one: a writer was killed in the middle of the first.
std::optional<std::size_t> FindSecondLine(std::string_view text);

/// The message with line feeds alone between its lines, as the caller of the log gave it.
std::string MessageOf(const LogLine& line);

}  // namespace qellog
