// fuzz-sources: qellog/report/exception_report.cpp qellog/report/status_report.cpp qellog/report/benchmark_report.cpp qellog/report/report_head.cpp qellog/report/cause.cpp qellog/record/timestamp.cpp
// A report of each kind, as far as its text goes. Every list is at most as long as the text has lines.
#include <algorithm>
#include <cstdlib>

#include "qellog/report/benchmark_report.h"
#include "qellog/report/cause.h"
#include "qellog/report/report_head.h"

namespace {

using namespace qellog;

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  const ExceptionReport report = ParseExceptionReport(text);
  Require(report.frames.size() + report.registers.size() + report.code.size() + report.rawStack.size() <= lines);
  Require(!CauseOf(report).empty());
  TopFrames(report, 3);
  const StatusReport status = ParseStatusReport(text);
  Require(status.modules.size() + status.freeRegions.size() + status.drives.size() <= lines);
  Require(ParseBenchmarkReport(text).figures.size() <= lines);
  for (const auto kind : {RecordKind::kExceptionReport, RecordKind::kStatusReport, RecordKind::kBenchmarkReport})
    ReportTime(text, kind);
  return 0;
}
