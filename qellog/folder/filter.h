/// @file
/// Which records are shown.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qellog/folder/log_file.h"
#include "qellog/record/record.h"
#include "qellog/record/text_search.h"

namespace qellog {

/// Everything that is set must hold; of several values of one kind, one.
struct Filter {
  std::vector<std::string> channels;  ///< part of the channel's name
  std::optional<Timestamp> since;
  std::optional<Timestamp> until;
  std::vector<std::uint32_t> processIds;
  std::vector<std::uint32_t> threadIds;
  std::vector<std::string> programs;  ///< part of the path
  std::vector<std::string> sources;   ///< part of "file.cpp(12)"
  std::vector<std::uint32_t> errors;
  std::vector<TextSearch> texts;  ///< all of them have to stand in the record

  bool TakesFile(const LogFile& file) const;
  bool Takes(const Record& record) const;

 private:
  bool TakesLine(const LogLine& line) const;
  bool TakesReport(const Record& record) const;
  bool AsksForFieldsOfLines() const;
};

/// A time of the command line: "2026/11/25", "2026-11-25 10:00", "10:00:30" (today), "-2h" (before now; also s, m, d).
std::optional<Timestamp> ParseMoment(std::string_view text, Timestamp now);
/// An error of the command line: "32", "0x20", "ERROR_SHARING_VIOLATION", "sharing_violation".
std::optional<std::uint32_t> ParseError(std::string_view text);

}  // namespace qellog
