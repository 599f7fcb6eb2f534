/// @file
/// What the files of a log folder are cut into.
#pragma once
#include <cstdint>
#include <string_view>

#include "qellog/record/log_line.h"

namespace qellog {

enum class RecordKind {
  kLine,
  kDamagedLine,  ///< begins with the shape of a time but is no line
  kForeignText,  ///< stands before everything that the library writes
  kExceptionReport,
  kStatusReport,
  kBenchmarkReport,
};

/// The views point into the reader's buffer and hold until its next step.
struct Record {
  RecordKind kind = RecordKind::kForeignText;
  std::string_view text;            ///< without the line end behind it
  LogLine line;                     ///< of a kLine
  Timestamp time;                   ///< of what has one, or that of the record before
  std::uint64_t offset = 0;         ///< of the first byte in the file
  std::uint64_t lineNumber = 1;     ///< of the first line in the file; wrong once records were skipped by a search
  std::uint64_t droppedBytes = 0;   ///< how much of a very long record is not in the text
  std::uint32_t bareLineFeeds = 0;  ///< lines that end without a carriage return, which the library always writes
  bool firstLineIsBare = false;     ///< the first line is one of them
  bool unfinished = false;          ///< the file ends without a line end: the record is still being written
};

inline bool IsReport(const Record& record) {
  return record.kind == RecordKind::kExceptionReport || record.kind == RecordKind::kStatusReport ||
         record.kind == RecordKind::kBenchmarkReport;
}

}  // namespace qellog
