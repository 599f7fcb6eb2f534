#include "qellog/folder/filter.h"

#include <algorithm>
#include <charconv>

#include "qellog/record/message_facts.h"
#include "qellog/report/exception_report.h"

namespace qellog {
namespace {

bool Contains(const std::vector<std::uint32_t>& values, std::uint32_t value) {
  return values.empty() || std::find(values.begin(), values.end(), value) != values.end();
}

bool HasPart(const std::vector<std::string>& parts, std::string_view text) {
  if (parts.empty()) return true;
  return std::any_of(parts.begin(), parts.end(), [text](const auto& part) { return text.find(part) != text.npos; });
}

bool HasAll(const std::vector<TextSearch>& texts, std::string_view bytes) {
  return std::all_of(texts.begin(), texts.end(), [bytes](const auto& text) { return text.IsIn(bytes); });
}

template <class Number>
std::optional<Number> WholeNumber(std::string_view text, int base = 10) {
  Number value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

std::optional<Timestamp> ParseAgo(std::string_view text, Timestamp now) {
  constexpr std::string_view kUnits = "smhd";
  constexpr std::int64_t kMilliseconds[] = {1000, 60'000, 3'600'000, 86'400'000};
  const std::size_t unit = kUnits.find(text.back());
  if (unit == kUnits.npos) return std::nullopt;
  const auto count = WholeNumber<std::uint32_t>(text.substr(1, text.size() - 2));
  if (!count) return std::nullopt;
  return Timestamp{now.milliseconds - *count * kMilliseconds[unit]};
}

/// Completes "2026-11-25", "2026-11-25 10:00" or "10:00" to the whole layout, the day from now where it is missing.
std::string CompleteMoment(std::string_view text, Timestamp now) {
  constexpr std::size_t kDayLength = 10;
  constexpr std::string_view kWhole = "0000/00/00 00:00:00.000";
  std::string whole(text);
  if (text.size() > 2 && text[2] == ':') whole.insert(0, FormatTime(now).substr(0, kDayLength + 1));
  std::replace(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(std::min(whole.size(), kDayLength)), '-',
               '/');
  if (whole.size() > kDayLength && whole[kDayLength] == 'T') whole[kDayLength] = ' ';
  if (whole.size() < kWhole.size()) whole += kWhole.substr(whole.size());
  return whole;
}

}  // namespace

bool Filter::TakesFile(const LogFile& file) const { return HasPart(channels, file.channel); }

bool Filter::AsksForFieldsOfLines() const {
  return !processIds.empty() || !threadIds.empty() || !programs.empty() || !sources.empty() || !errors.empty();
}

bool Filter::Takes(const Record& record) const {
  if (since && record.time < *since) return false;
  if (until && record.time > *until) return false;
  if (AsksForFieldsOfLines()) {
    const bool fields = record.kind == RecordKind::kLine ? TakesLine(record.line) : TakesReport(record);
    if (!fields) return false;
  }
  return HasAll(texts, record.text);
}

bool Filter::TakesLine(const LogLine& line) const {
  if (!Contains(processIds, line.processId) || !Contains(threadIds, line.threadId)) return false;
  if (!HasPart(programs, line.program)) return false;
  if (!sources.empty() && !HasPart(sources, std::string(line.sourceFile) + "(" + std::to_string(line.sourceLine) + ")"))
    return false;
  if (errors.empty()) return true;
  const auto error = ErrorOf(line.message);
  return error && Contains(errors, *error);
}

bool Filter::TakesReport(const Record& record) const {
  if (record.kind != RecordKind::kExceptionReport) return false;
  const ExceptionReport report = ParseExceptionReport(record.text);
  const bool source = HasPart(sources, report.sourceFile + "(" + std::to_string(report.sourceLine) + ")");
  const bool error = errors.empty() || (report.exception && Contains(errors, report.exception->code));
  return Contains(processIds, report.processId) && Contains(threadIds, report.threadId) &&
         HasPart(programs, report.program) && source && error;
}

std::optional<Timestamp> ParseMoment(std::string_view text, Timestamp now) {
  if (text.size() > 2 && text.front() == '-') return ParseAgo(text, now);
  return ParseTime(CompleteMoment(text, now), TimeLayout::kWithoutComma);
}

std::optional<std::uint32_t> ParseError(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) return WholeNumber<std::uint32_t>(text.substr(2), 16);
  if (const auto number = WholeNumber<std::uint32_t>(text)) return number;
  return ErrorByName(text);
}

}  // namespace qellog
