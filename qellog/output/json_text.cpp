#include "qellog/output/json_text.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "qellog/output/json_report.h"
#include "qellog/record/message_facts.h"
#include "qellog/text/decode_text.h"
#include "qellog/text/utf8.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

constexpr std::size_t kMostListed = 100;

void AppendEscape(std::string& text, char32_t codePoint) {
  char escape[16];
  if (codePoint < 0x10000) {
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(codePoint));
  } else {
    const auto above = static_cast<unsigned>(codePoint - 0x10000);
    std::snprintf(escape, sizeof escape, "\\u%04x\\u%04x", 0xD800 + (above >> 10), 0xDC00 + (above & 0x3FF));
  }
  text += escape;
}

/// JSON may write any character as an escape: those that act on a terminal or a page never come as they are.
template <class MustEscape>
std::string Escaped(std::string_view json, MustEscape mustEscape) {
  std::string text;
  text.reserve(json.size());
  while (!json.empty()) {
    const Utf8Character character = FirstCharacter(json);
    if (mustEscape(character.codePoint))
      AppendEscape(text, character.codePoint);
    else
      text.append(json, 0, character.bytes);
    json.remove_prefix(character.bytes);
  }
  return text;
}

std::string Dump(const Json& value) {
  return Escaped(value.dump(), [](char32_t codePoint) { return codePoint >= 0x7F && IsInvisible(codePoint); });
}

void AddError(Json& value, std::string_view message) {
  const auto error = ErrorOf(message);
  if (!error) return;
  value["error"] = *error;
  if (const auto name = ErrorName(*error); !name.empty()) value["errorName"] = name;
}

void AddLine(Json& value, const LogLine& line) {
  if (line.memoryLoad) value["memoryLoad"] = *line.memoryLoad;
  value["program"] = DecodeText(line.program);
  value["processId"] = line.processId;
  value["threadId"] = line.threadId;
  value["source"] = DecodeText(line.sourceFile);
  value["line"] = line.sourceLine;
  value["message"] = DecodeText(MessageOf(line));
  AddError(value, line.message);
}

Json JsonOf(const std::vector<CountedText>& texts) {
  Json list = Json::array();
  for (const auto& [text, count] : texts) list.push_back({{"text", DecodeText(text)}, {"count", count}});
  return list;
}

Json JsonOf(const Process& process) {
  return {{"program", DecodeText(process.program)}, {"processId", process.id}, {"first", IsoTime(process.first)},
          {"last", IsoTime(process.last)},          {"lines", process.lines},  {"reports", process.reports}};
}

void AddLists(Json& value, const Summary& summary) {
  value["channels"] = Json::array();
  for (const auto& channel : summary.channels)
    value["channels"].push_back({{"name", channel.name},
                                 {"records", channel.records},
                                 {"bytes", channel.bytes},
                                 {"fullFiles", channel.fullFiles}});
  value["processes"] = Json::array();
  for (const auto& process : summary.processes) value["processes"].push_back(JsonOf(process));
  value["errors"] = Json::array();
  for (const auto& [error, count] : summary.errors)
    value["errors"].push_back({{"error", error}, {"name", ErrorName(error)}, {"count", count}});
  value["waits"] = Json::array();
  for (const auto& wait : summary.waits)
    value["waits"].push_back(
        {{"milliseconds", wait.milliseconds}, {"time", IsoTime(wait.time)}, {"what", DecodeText(wait.what)}});
  value["silences"] = Json::array();
  for (const auto& silence : summary.silences)
    value["silences"].push_back({{"from", IsoTime(silence.from)}, {"to", IsoTime(silence.to)}});
}

}  // namespace

std::string JsonOfRecord(const FileRecord& found) {
  const Record& record = found.record;
  Json value;
  value["kind"] = NameOf(record.kind);
  value["time"] = IsoTime(record.time);
  value["channel"] = found.file->channel;
  if (record.kind == RecordKind::kLine) {
    AddLine(value, record.line);
  } else if (IsReport(record)) {
    const ReportEntry entry = DescribeReport(found, 0);
    value["program"] = DecodeText(entry.program);
    value["processId"] = entry.processId;
    value["message"] = DecodeText(entry.cause.empty() ? entry.heading : entry.cause);
  } else {
    value["message"] = DecodeText(record.text);
  }
  if (record.droppedBytes > 0) value["droppedBytes"] = record.droppedBytes;
  if (record.unfinished) value["unfinished"] = true;
  return Dump(value);
}

std::string JsonOfSummary(const Summary& summary) {
  Json value;
  value["first"] = summary.first ? Json(IsoTime(*summary.first)) : Json();
  value["last"] = summary.last ? Json(IsoTime(*summary.last)) : Json();
  value["files"] = summary.files;
  value["bytes"] = summary.bytes;
  value["lines"] = summary.lines;
  value["unfinished"] = summary.unfinished;
  AddLists(value, summary);
  value["sources"] = JsonOf(summary.sources.MostFrequent(kMostListed));
  value["retries"] = {{"endedWell", summary.retriesEndedWell},
                      {"endedBadly", summary.retriesEndedBadly},
                      {"givenUp", JsonOf(summary.functionsGivenUp.MostFrequent(kMostListed))}};
  value["reports"] = {{"exception", summary.exceptionReports},
                      {"status", summary.statusReports},
                      {"benchmark", summary.benchmarks},
                      {"causes", JsonOf(summary.causes.MostFrequent(kMostListed))}};
  value["damage"] = Json::object();
  for (const auto& [kind, count] : summary.damage) value["damage"][NameOf(kind)] = count;
  return Dump(value);
}

std::string JsonOfReport(const ReportEntry& entry, std::string_view text) { return Dump(ReportAsJson(entry, text)); }

std::string JsonOfDamage(const Damage& damage) {
  return Dump({{"kind", NameOf(damage.kind)},
               {"file", PathText(damage.file->path)},
               {"line", damage.line},
               {"detail", DecodeText(damage.detail)}});
}

std::string JsonOfText(std::string_view text) { return Dump(Json(DecodeText(text))); }

std::string EmbeddableJson(std::string_view json) {
  return Escaped(json, [](char32_t codePoint) { return codePoint == '<' || codePoint == '>' || codePoint == '&'; });
}

}  // namespace qellog
