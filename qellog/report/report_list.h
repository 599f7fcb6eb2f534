/// @file
/// All reports of a folder, numbered in the order of their times.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "qellog/folder/merged_records.h"

namespace qellog {

struct ReportEntry {
  std::size_t number = 0;
  RecordKind kind = RecordKind::kExceptionReport;
  Timestamp time;
  const LogFile* file = nullptr;
  std::uint64_t line = 0;  ///< of its first line in the file
  std::string program;
  std::uint32_t processId = 0;
  std::uint32_t threadId = 0;
  std::string heading;  ///< "title(message)"
  std::string cause;    ///< in words; of an exception report
  std::string frames;   ///< the top of the stack
  bool isWhole = true;
};

/// "exception", "status", "benchmark"
const char* NameOf(RecordKind kind);
/// A file's or program's name without its folders, of either system.
std::string_view NameWithoutFolders(std::string_view path);

ReportEntry DescribeReport(const FileRecord& record, std::size_t number);

/// Calls back for every report that the filter takes, with its text, in the order of their numbers. The numbers do not
/// depend on the filter. Ends when the callback returns false.
void ForEachReport(const std::vector<LogFile>& files, const Filter& filter, const ReportProblem& problem,
                   const std::function<bool(const ReportEntry&, std::string_view text)>& use);

}  // namespace qellog
