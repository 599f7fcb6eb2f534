#include "qellog/command/request.h"
#include "qellog/output/json_text.h"
#include "qellog/report/benchmark_report.h"
#include "qellog/report/cause.h"
#include "qellog/report/report_head.h"
#include "qellog/report/report_list.h"
#include "qellog/report/symbols.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

constexpr std::size_t kCodeLinesAround = 2;

/// Writes the sections of one report, folded to what matters.
class ReportWriter {
 public:
  ReportWriter(const Request& request, Output& output)
      : request_(request), output_(output), colours_(request.colours) {}

  void Write(const ReportEntry& entry, std::string_view text) {
    Line(colours_.Paint(Colour::kBold,
                        std::string("Report ") + std::to_string(entry.number) + ", " + NameOf(entry.kind)) +
         ", " + FormatTime(entry.time) + (entry.isWhole ? "" : " [cut short]"));
    Field("Heading", entry.heading);
    Field("Program", entry.program);
    Field("File", PathText(entry.file->path) + ":" + std::to_string(entry.line));
    if (entry.kind == RecordKind::kExceptionReport) WriteException(ParseExceptionReport(text));
    if (entry.kind == RecordKind::kStatusReport) WriteStatus(ParseStatusReport(text));
    if (entry.kind == RecordKind::kBenchmarkReport) WriteBenchmark(ParseBenchmarkReport(text));
  }
  void WriteWhole(std::string_view text) {
    LineCutter lines(text);
    std::string_view line;
    while (lines.Next(line)) Line(VisibleText(line));
  }

 private:
  void Line(const std::string& text) { output_.Write(text + "\n"); }
  void Field(std::string_view name, std::string_view value) {
    if (!value.empty()) Line(Padded(name, 10) + VisibleText(value));
  }
  void Title(std::string_view title) { Line("\n" + colours_.Paint(Colour::kBold, title)); }
  void Values(std::string_view title, const std::vector<NamedValue>& values) {
    if (values.empty()) return;
    Title(title);
    for (const auto& [name, value] : values) Line("  " + Padded(VisibleText(name), 28) + VisibleText(value));
  }

  void WriteException(const ExceptionReport& report) {
    Field("Process", std::to_string(report.processId) + ", thread " + std::to_string(report.threadId) +
                         ", its report " + std::to_string(report.count));
    Field("Caught at", report.sourceFile + "(" + std::to_string(report.sourceLine) + ")");
    Line(Padded("Cause", 10) + colours_.Paint(Colour::kRed, VisibleText(CauseOf(report))));
    if (report.exception) Field("Code", HexText(report.exception->code) + " " + ExceptionName(report.exception->code));
    WriteRegisters(report);
    WriteStack(report);
    WriteCode(report);
    if (report.status) Values("Memory", report.status->freeSums);
  }
  void WriteRegisters(const ExceptionReport& report) {
    constexpr std::size_t kIntegerRegisters = 10;
    if (report.registers.size() < kIntegerRegisters) return;
    Title("Registers");
    for (std::size_t i = 0; i < kIntegerRegisters; i += 5) {
      std::string row = " ";
      for (std::size_t j = i; j < i + 5; ++j)
        row += " " + Padded(VisibleText(report.registers[j].name), 7) + VisibleText(report.registers[j].value) + " ";
      Line(row);
    }
  }
  void WriteStack(const ExceptionReport& report) {
    Title("Stack");
    const SymbolFolder symbols(
        std::filesystem::path(std::u8string(request_.symbolFolder.begin(), request_.symbolFolder.end())));
    bool isFirst = true;
    for (const StackFrame& frame : report.frames) {
      std::string place;
      if (!request_.symbolFolder.empty() && report.status)
        place = symbols.PlaceOf(frame.address, !isFirst, report.status->modules);
      const std::string name =
          frame.function.empty() ? "?" : VisibleText(frame.function) + " + " + ShortHexText(frame.displacement);
      Line("  " + HexText(frame.address) + "  " + name +
           (place.empty() ? "" : "  " + colours_.Paint(Colour::kGreen, VisibleText(place))));
      isFirst = false;
    }
    if (report.frames.empty()) Line("  none");
  }
  void WriteCode(const ExceptionReport& report) {
    std::size_t marked = 0;
    while (marked < report.code.size() && !report.code[marked].starts_with('>')) ++marked;
    if (marked == report.code.size()) return;
    Title("Code");
    const std::size_t first = marked < kCodeLinesAround ? 0 : marked - kCodeLinesAround;
    for (std::size_t i = first; i < std::min(report.code.size(), marked + kCodeLinesAround + 1); ++i)
      Line((i == marked ? "  " : "   ") + VisibleText(report.code[i]));
  }
  void WriteStatus(const StatusReport& report) {
    Values("Process", report.banner);
    Values("Free address space", report.freeSums);
    Values("Memory", report.memory);
    Values("System", report.system);
    Title("Drives");
    for (const std::string& drive : report.drives) Line("  " + VisibleText(drive));
  }
  void WriteBenchmark(const BenchmarkReport& report) {
    Title("MiB/s");
    for (const auto& [name, figure] : report.figures) {
      char number[32];
      std::snprintf(number, sizeof number, "%12.2f", figure);
      Line("  " + Padded(VisibleText(name), 34) + number);
    }
  }

  const Request& request_;
  Output& output_;
  Colours colours_;
};

}  // namespace

Outcome RunReport(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  bool found = false;
  ForEachReport(files, Filter{}, problems.Teller(), [&](const ReportEntry& entry, std::string_view text) {
    if (entry.number != request.number) return true;
    found = true;
    ReportWriter writer(request, output);
    if (request.format == Format::kJson)
      output.Write(JsonOfReport(entry, text) + "\n");
    else if (request.whole)
      writer.WriteWhole(text);
    else
      writer.Write(entry, text);
    return false;
  });
  if (!found) problems.Tell("report " + std::to_string(request.number), "there is none of this number");
  return Outcome::kGood;
}

}  // namespace qellog
