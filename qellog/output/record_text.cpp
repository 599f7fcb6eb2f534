#include "qellog/output/record_text.h"

#include <array>
#include <charconv>

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

void AppendNumber(std::string& text, std::int64_t number) {
  std::array<char, 24> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  text.append(digits.data(), result.ptr);
}

void AppendProcess(std::string& text, std::string_view program, std::uint32_t processId, std::uint32_t threadId) {
  AppendVisible(text, NameWithoutFolders(program));
  text += '[';
  AppendNumber(text, processId);
  if (threadId != 0) {  // a status report tells none
    text += ':';
    AppendNumber(text, threadId);
  }
  text += ']';
}

/// Appends in a colour what `append` appends.
template <class Append>
void InColour(std::string& text, const Colours& colours, Colour colour, Append append) {
  colours.Begin(text, colour);
  append();
  colours.End(text, colour);
}

void AppendLoad(std::string& text, const std::optional<std::uint32_t>& load) {
  if (!load) {
    text.append(4, ' ');
    return;
  }
  if (*load < 100) text += ' ';
  if (*load < 10) text += ' ';
  AppendNumber(text, *load);
  text += '%';
}

void AppendLine(std::string& text, const LogLine& line, const Colours& colours) {
  InColour(text, colours, Colour::kFaint, [&] { AppendLoad(text, line.memoryLoad); });
  text += ' ';
  InColour(text, colours, Colour::kBlue, [&] { AppendProcess(text, line.program, line.processId, line.threadId); });
  text += ' ';
  AppendVisible(text, line.sourceFile);
  text += '(';
  AppendNumber(text, line.sourceLine);
  text += "): ";
  InColour(text, colours, colours.AreOn() ? ColourOfMessage(line.message) : Colour::kPlain,
           [&] { AppendVisible(text, line.message, LineEnds::kKept); });
}

void AppendReport(std::string& text, const FileRecord& found, const Colours& colours) {
  const ReportEntry entry = DescribeReport(found, 0);
  text.append(5, ' ');
  if (!entry.program.empty()) {
    InColour(text, colours, Colour::kBlue,
             [&] { AppendProcess(text, entry.program, entry.processId, entry.threadId); });
    text += ' ';
  }
  text.append(NameOf(entry.kind)).append(" report: ");
  std::string content = VisibleText(entry.heading);
  if (!entry.cause.empty())
    content += ": " + VisibleText(entry.cause) + (entry.frames.empty() ? "" : "; ") + VisibleText(entry.frames);
  text += colours.Paint(entry.cause.empty() ? Colour::kPlain : Colour::kRed, content);
}

void AppendContent(std::string& text, const FileRecord& found, const Colours& colours) {
  if (found.record.kind == RecordKind::kLine) return AppendLine(text, found.record.line, colours);
  if (IsReport(found.record)) return AppendReport(text, found, colours);
  const std::string start = std::string("     ") + NameOf(found.record.kind) + " text: ";
  text += colours.Paint(Colour::kMagenta, start + VisibleText(found.record.text, LineEnds::kKept));
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
  std::string text;
  text.reserve(record.text.size() + 64);
  InColour(text, colours, Colour::kFaint, [&] {
    if (record.time == Timestamp{})
      text.append(TimeLength(TimeLayout::kWithoutComma), ' ');
    else
      text += FormatTime(record.time);
  });
  text += ' ';
  InColour(text, colours, Colour::kCyan, [&] { text += Padded(VisibleText(found.file->channel), kChannelWidth); });
  text += ' ';
  AppendContent(text, found, colours);
  if (record.droppedBytes > 0)
    text += colours.Paint(Colour::kMagenta, " [" + Grouped(record.droppedBytes) + " more bytes]");
  if (record.unfinished) text += colours.Paint(Colour::kMagenta, " [unfinished]");
  text += '\n';
  return text;
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
