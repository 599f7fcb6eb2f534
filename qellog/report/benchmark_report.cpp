#include "qellog/report/benchmark_report.h"

#include "qelibaselib/base/log_layout.h"
#include "qellog/report/report_head.h"
#include "qellog/report/report_lines.h"

namespace qellog {
namespace {

constexpr std::string_view kUnit = " Mbyte/sec ";

/// "MMF    - Random     Read        =  12.34 Mbyte/sec ": the label's blanks and its tab become single blanks.
std::string FigureName(std::string_view label) {
  std::string name;
  for (const char character : label) {
    const bool blank = character == ' ' || character == '\t';
    if (!blank)
      name += character;
    else if (!name.empty() && name.back() != ' ')
      name += ' ';
  }
  while (name.ends_with(' ')) name.pop_back();
  return name;
}

bool ReadFigure(std::string_view line, BenchmarkReport& report) {
  const std::size_t equals = line.rfind('=');
  if (equals == line.npos || !line.ends_with(kUnit)) return false;
  std::string_view number = line.substr(equals + 1);
  number.remove_prefix(std::min(number.find_first_not_of(' '), number.size()));
  double figure = 0;
  const auto result = std::from_chars(number.data(), number.data() + number.size(), figure);
  if (result.ec != std::errc()) return false;
  report.figures.push_back({FigureName(line.substr(0, equals)), figure});
  return true;
}

}  // namespace

BenchmarkReport ParseBenchmarkReport(std::string_view text) {
  BenchmarkReport report;
  bool atEnd = false;
  LineCutter lines(text);
  std::string_view line;
  while (lines.Next(line)) {
    const auto time = ParseTime(line, TimeLayout::kWithoutComma);
    if (line == WithoutLineFeed(qel::layout::kBenchmarkStampHeading)) {
      atEnd = true;
    } else if (time) {
      (atEnd ? report.measured : report.time) = time;
    } else if (atEnd) {
      report.heading += (report.heading.empty() ? "" : "\n") + std::string(line);
    } else if (line.starts_with("Line = ")) {
      report.errorLine = NumberBehind<std::int32_t>(line, "Line = ").value_or(0);
      const std::size_t number = line.find_first_not_of(' ', line.find("LastErrNum = ") + 13);
      if (number < line.size()) report.errorNumber = LeadingNumber<std::int32_t>(line.substr(number)).value_or(0);
    } else {
      ReadFigure(line, report);
    }
  }
  return report;
}

}  // namespace qellog
