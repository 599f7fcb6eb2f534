#include "qellog/report/exception_report.h"

#include "qelibaselib/base/log_layout.h"
#include "qellog/report/report_head.h"
#include "qellog/report/report_lines.h"

namespace qellog {
namespace {

namespace layout = qel::layout;

enum class Section { kBanner, kSource, kRecord, kContext, kCode, kStack, kRawStack };

std::optional<Section> SectionOf(std::string_view line) {
  constexpr std::pair<std::string_view, Section> kHeadings[] = {
      {layout::kSourceHeading, Section::kSource},   {layout::kRecordHeading, Section::kRecord},
      {layout::kContextHeading, Section::kContext}, {layout::kCodeHeading, Section::kCode},
      {layout::kStackWalkHeading, Section::kStack}, {layout::kRawStackHeading, Section::kRawStack},
  };
  for (const auto& [heading, section] : kHeadings)
    if (line == WithoutLineFeed(heading)) return section;
  return std::nullopt;
}

/// The heading may hold line ends of its own: it goes up to the program, which is the line before the counters.
class Banner {
 public:
  void Read(std::string_view line, ExceptionReport& report) {
    constexpr std::string_view kMark = UpToField(layout::kExceptionTime);
    constexpr std::string_view kCounters = UpToField(layout::kExceptionCounters);
    if (line == WithoutLineFeed(layout::kExceptionSeparator) || isOver_) return;
    const std::string_view content = line.substr(line.starts_with(kMark) ? kMark.size() : 0);
    if (!report.time) {
      report.time = ParseTime(content, TimeLayout::kWithoutComma);
    } else if (line.starts_with(kCounters)) {
      report.count = NumberBehind<std::uint32_t>(line, "TC=").value_or(0);
      report.processId = NumberBehind<std::uint32_t>(line, "ProcessId()=").value_or(0);
      report.threadId = NumberBehind<std::uint32_t>(line, "ThreadId()=").value_or(0);
      report.program = last_.value_or("");
      isOver_ = true;
    } else {
      if (last_) report.heading += (report.heading.empty() ? "" : "\n") + *last_;
      last_ = content;
    }
  }

 private:
  std::optional<std::string> last_;  ///< the line before this one
  bool isOver_ = false;
};

void ReadSource(std::string_view line, ExceptionReport& report) {
  const std::size_t open = line.rfind('(');
  if (open == line.npos || !report.sourceFile.empty()) return;
  report.sourceFile = line.substr(0, open);
  report.sourceLine = LeadingNumber<std::int32_t>(line.substr(open + 1)).value_or(0);
}

void ReadRecord(std::string_view line, ExceptionReport& report) {
  const auto number = NumberBehind<std::uint32_t>(line, "= 0x", 16);
  const auto startsWith = [line](std::string_view name) { return line.starts_with(name); };
  if (const auto thread = NumberBehind<std::int32_t>(line, "omp_get_thread_num=")) report.ompThread = *thread;
  if (!number) return;
  if (startsWith("ExceptionCode ")) report.exception.emplace().code = *number;
  if (!report.exception) return;
  if (startsWith("ExceptionFlags ")) report.exception->flags = *number;
  if (startsWith("ExceptionAddress ")) report.exception->address = *number;
  if (startsWith("NumberParameters ")) report.exception->parameterCount = *number;
  if (startsWith("ExceptionInformation[")) report.exception->parameters.push_back(*number);
}

void ReadContext(std::string_view line, ExceptionReport& report) {
  if (line.find("] :") != line.npos)
    report.areas.emplace_back(line);
  else if (auto value = SplitValue(line))
    report.registers.push_back(std::move(*value));
}

/// "0x565c3277 ReadPixel() + 0x7" or the address alone.
void ReadFrame(std::string_view line, ExceptionReport& report) {
  constexpr std::size_t kName = 11;
  constexpr std::string_view kBehindName = "() + 0x";
  if (!line.starts_with("0x")) return;
  StackFrame frame;
  frame.address = LeadingNumber<std::uint32_t>(line.substr(2), 16).value_or(0);
  const std::size_t end = line.rfind(kBehindName);
  if (end != line.npos && end >= kName) {
    frame.function = line.substr(kName, end - kName);
    frame.displacement = LeadingNumber<std::uint32_t>(line.substr(end + kBehindName.size()), 16).value_or(0);
  }
  report.frames.push_back(std::move(frame));
}

void AddDumpLine(std::string_view line, std::vector<std::string>& lines) {
  if (!line.empty()) lines.emplace_back(line);
}

void ReadLine(Section section, std::string_view line, Banner& banner, ExceptionReport& report) {
  switch (section) {
    case Section::kBanner:
      return banner.Read(line, report);
    case Section::kSource:
      return ReadSource(line, report);
    case Section::kRecord:
      return ReadRecord(line, report);
    case Section::kContext:
      return ReadContext(line, report);
    case Section::kCode:
      return AddDumpLine(line, report.code);
    case Section::kStack:
      return ReadFrame(line, report);
    case Section::kRawStack:
      return AddDumpLine(line, report.rawStack);
  }
}

}  // namespace

ExceptionReport ParseExceptionReport(std::string_view text) {
  ExceptionReport report;
  Banner banner;
  Section section = Section::kBanner;
  LineCutter lines(text);
  std::string_view line;
  while (lines.Next(line)) {
    if (const auto next = SectionOf(line)) {
      section = *next;
    } else if (section >= Section::kContext && line == WithoutLineFeed(layout::kStatusBannerLine)) {
      report.status = ParseStatusReport(text.substr(static_cast<std::size_t>(line.data() - text.data())));
      break;
    } else {
      ReadLine(section, line, banner, report);
    }
  }
  return report;
}

}  // namespace qellog
