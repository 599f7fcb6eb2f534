#include "qellog/output/record_text.h"

#include "qellog/record/message_facts.h"
#include "qellog/report/report_list.h"
#include "qellog/text/decode_text.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

constexpr std::size_t kChannelWidth = 9;

Colour ColourOfMessage(std::string_view message) {
  const auto contains = [message](std::string_view part) { return message.find(part) != message.npos; };
  if (contains(", Retry, ") || message.starts_with("Warning")) return Colour::kYellow;
  const bool isBad =
      ErrorOf(message).value_or(0) != 0 || message.starts_with("Error") || contains("ASSERT : ") || contains("Error(");
  return isBad ? Colour::kRed : Colour::kPlain;
}

std::string ProcessText(std::string_view program, std::uint32_t processId, std::uint32_t threadId) {
  const std::string thread = threadId == 0 ? "" : ":" + std::to_string(threadId);  // a status report tells none
  return VisibleText(NameWithoutFolders(program)) + "[" + std::to_string(processId) + thread + "]";
}

std::string LineText(const LogLine& line, const Colours& colours) {
  const std::string load = line.memoryLoad ? std::to_string(*line.memoryLoad) + "%" : "";
  std::string text = colours.Paint(Colour::kFaint, PaddedLeft(load, 4)) + " ";
  text += colours.Paint(Colour::kBlue, ProcessText(line.program, line.processId, line.threadId)) + " ";
  text += VisibleText(line.sourceFile) + "(" + std::to_string(line.sourceLine) + "): ";
  return text + colours.Paint(ColourOfMessage(line.message), VisibleText(line.message, LineEnds::kKept));
}

std::string ReportText(const FileRecord& found, const Colours& colours) {
  const ReportEntry entry = DescribeReport(found, 0);
  std::string text = "     ";
  if (!entry.program.empty())
    text += colours.Paint(Colour::kBlue, ProcessText(entry.program, entry.processId, entry.threadId)) + " ";
  text += std::string(NameOf(entry.kind)) + " report: ";
  std::string content = VisibleText(entry.heading);
  if (!entry.cause.empty())
    content += ": " + VisibleText(entry.cause) + (entry.frames.empty() ? "" : "; ") + VisibleText(entry.frames);
  return text + colours.Paint(entry.cause.empty() ? Colour::kPlain : Colour::kRed, content);
}

std::string ContentText(const FileRecord& found, const Colours& colours) {
  if (found.record.kind == RecordKind::kLine) return LineText(found.record.line, colours);
  if (IsReport(found.record)) return ReportText(found, colours);
  const std::string text = std::string("     ") + NameOf(found.record.kind) + " text: ";
  return colours.Paint(Colour::kMagenta, text + VisibleText(found.record.text, LineEnds::kKept));
}

std::string CsvField(std::string_view bytes) {
  constexpr std::string_view kStartsFormula = "=+-@\t\r";
  std::string field = "\"";
  if (!bytes.empty() && kStartsFormula.find(bytes.front()) != kStartsFormula.npos) field += '\'';
  for (const char character : VisibleText(bytes, LineEnds::kVisible)) {
    if (character == '"') field += '"';
    field += character;
  }
  return field + "\"";
}

}  // namespace

std::string TextOfRecord(const FileRecord& found, const Colours& colours) {
  const Record& record = found.record;
  const std::string time =
      record.time == Timestamp{} ? std::string(TimeLength(TimeLayout::kWithoutComma), ' ') : FormatTime(record.time);
  std::string text = colours.Paint(Colour::kFaint, time) + " ";
  text += colours.Paint(Colour::kCyan, Padded(VisibleText(found.file->channel), kChannelWidth)) + " ";
  text += ContentText(found, colours);
  if (record.droppedBytes > 0)
    text += colours.Paint(Colour::kMagenta, " [" + Grouped(record.droppedBytes) + " more bytes]");
  if (record.unfinished) text += colours.Paint(Colour::kMagenta, " [unfinished]");
  return text + "\n";
}

std::string CsvHeader() {
  return "time,kind,channel,memoryLoad,program,processId,threadId,source,line,message,error,unfinished\n";
}

std::string CsvOfRecord(const FileRecord& found) {
  const Record& record = found.record;
  const bool isLine = record.kind == RecordKind::kLine;
  const LogLine& line = record.line;
  const ReportEntry entry = IsReport(record) ? DescribeReport(found, 0) : ReportEntry{};
  std::string message = isLine ? MessageOf(line) : std::string(record.text);
  if (IsReport(record)) message = entry.heading + (entry.cause.empty() ? "" : ": " + entry.cause);
  const auto error = isLine ? ErrorOf(line.message) : std::nullopt;
  std::string text = FormatTime(record.time) + "," + NameOf(record.kind) + "," + CsvField(found.file->channel) + ",";
  if (line.memoryLoad) text += std::to_string(*line.memoryLoad);
  text += "," + CsvField(isLine ? line.program : entry.program) + ",";
  text += std::to_string(isLine ? line.processId : entry.processId) + ",";
  text += std::to_string(isLine ? line.threadId : entry.threadId) + ",";
  text += CsvField(line.sourceFile) + "," + (isLine ? std::to_string(line.sourceLine) : "") + ",";
  text += CsvField(message) + "," + (error ? std::to_string(*error) : "") + ",";
  return text + (record.unfinished ? "unfinished\n" : "\n");
}

}  // namespace qellog
