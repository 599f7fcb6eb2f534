#include "qellog/report/report_list.h"

#include <algorithm>

#include "qellog/report/benchmark_report.h"
#include "qellog/report/cause.h"

namespace qellog {
namespace {

constexpr std::size_t kTopFrames = 3;

void DescribeException(std::string_view text, ReportEntry& entry) {
  const ExceptionReport report = ParseExceptionReport(text);
  entry.program = report.program;
  entry.processId = report.processId;
  entry.threadId = report.threadId;
  entry.heading = report.heading;
  entry.cause = CauseOf(report);
  entry.frames = TopFrames(report, kTopFrames);
  entry.isWhole = report.IsWhole();
}

void DescribeStatus(std::string_view text, ReportEntry& entry) {
  const StatusReport report = ParseStatusReport(text);
  entry.program = report.program;
  entry.processId = report.processId;
  entry.heading = report.heading;
  entry.isWhole = report.reachesDrives;
}

}  // namespace

const char* NameOf(RecordKind kind) {
  switch (kind) {
    case RecordKind::kExceptionReport:
      return "exception";
    case RecordKind::kStatusReport:
      return "status";
    case RecordKind::kBenchmarkReport:
      return "benchmark";
    case RecordKind::kLine:
      return "line";
    case RecordKind::kDamagedLine:
      return "damaged";
    case RecordKind::kForeignText:
      return "foreign";
  }
  return "";
}

std::string_view NameWithoutFolders(std::string_view path) {
  const std::size_t separator = path.find_last_of("/\\");
  return separator == path.npos ? path : path.substr(separator + 1);
}

ReportEntry DescribeReport(const FileRecord& found, std::size_t number) {
  ReportEntry entry;
  entry.number = number;
  entry.kind = found.record.kind;
  entry.time = found.record.time;
  entry.file = found.file;
  entry.line = found.record.lineNumber;
  if (entry.kind == RecordKind::kExceptionReport) DescribeException(found.record.text, entry);
  if (entry.kind == RecordKind::kStatusReport) DescribeStatus(found.record.text, entry);
  if (entry.kind == RecordKind::kBenchmarkReport) entry.heading = ParseBenchmarkReport(found.record.text).heading;
  entry.isWhole = entry.isWhole || found.record.droppedBytes > 0;
  return entry;
}

void ForEachReport(const std::vector<LogFile>& files, const Filter& filter, const ReportProblem& problem,
                   const std::function<bool(const ReportEntry&, std::string_view text)>& use) {
  std::vector<LogFile> withReports;
  std::copy_if(files.begin(), files.end(), std::back_inserter(withReports), [](const LogFile& file) {
    return file.role != FileRole::kChannel && file.role != FileRole::kDayHistory;
  });
  const Filter everything;
  MergedRecords records(withReports, everything, problem);
  std::size_t number = 0;
  while (const FileRecord* const found = records.Next()) {
    if (!IsReport(found->record)) continue;
    ++number;
    if (!filter.TakesFile(*found->file) || !filter.Takes(found->record)) continue;
    if (!use(DescribeReport(*found, number), found->record.text)) return;
  }
}

}  // namespace qellog
