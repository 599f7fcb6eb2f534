#include "qellog/output/json_report.h"

#include "qellog/report/benchmark_report.h"
#include "qellog/report/cause.h"
#include "qellog/text/decode_text.h"

namespace qellog {
namespace {

Json JsonOf(const std::vector<NamedValue>& values) {
  Json list = Json::array();
  for (const auto& [name, value] : values) list.push_back({{"name", DecodeText(name)}, {"value", DecodeText(value)}});
  return list;
}

Json JsonOf(const std::vector<std::string>& lines) {
  Json list = Json::array();
  for (const std::string& line : lines) list.push_back(DecodeText(line));
  return list;
}

Json JsonOf(const StatusReport& report) {
  Json value;
  value["heading"] = DecodeText(report.heading);
  value["banner"] = JsonOf(report.banner);
  value["system"] = JsonOf(report.system);
  value["modules"] = Json::array();
  for (const auto& module : report.modules)
    value["modules"].push_back({{"start", HexText(module.start)},
                                {"end", HexText(module.end)},
                                {"entryPoint", HexText(module.entryPoint)},
                                {"name", DecodeText(module.name)}});
  value["freeRegions"] = Json::array();
  for (const auto& region : report.freeRegions)
    value["freeRegions"].push_back(
        {{"start", HexText(region.start)}, {"end", HexText(region.end)}, {"mebibytes", region.mebibytes}});
  value["freeSums"] = JsonOf(report.freeSums);
  value["memory"] = JsonOf(report.memory);
  value["drives"] = JsonOf(report.drives);
  return value;
}

Json JsonOf(const ExceptionRecord& exception) {
  Json value = {{"code", HexText(exception.code)},
                {"name", ExceptionName(exception.code)},
                {"flags", HexText(exception.flags)},
                {"address", HexText(exception.address)}};
  value["parameters"] = Json::array();
  for (const auto parameter : exception.parameters) value["parameters"].push_back(HexText(parameter));
  return value;
}

void AddException(Json& value, std::string_view text) {
  const ExceptionReport report = ParseExceptionReport(text);
  value["count"] = report.count;
  value["source"] = DecodeText(report.sourceFile);
  value["line"] = report.sourceLine;
  if (report.exception) value["exception"] = JsonOf(*report.exception);
  value["registers"] = JsonOf(report.registers);
  value["areas"] = JsonOf(report.areas);
  value["code"] = JsonOf(report.code);
  value["stack"] = Json::array();
  for (const auto& frame : report.frames)
    value["stack"].push_back({{"address", HexText(frame.address)},
                              {"function", DecodeText(frame.function)},
                              {"displacement", frame.displacement}});
  value["rawStack"] = JsonOf(report.rawStack);
  if (report.status) value["status"] = JsonOf(*report.status);
}

void AddBenchmark(Json& value, std::string_view text) {
  const BenchmarkReport report = ParseBenchmarkReport(text);
  value["figures"] = Json::array();
  for (const auto& [name, figure] : report.figures)
    value["figures"].push_back({{"name", DecodeText(name)}, {"mebibytesPerSecond", figure}});
  value["errorLine"] = report.errorLine;
  value["errorNumber"] = report.errorNumber;
}

}  // namespace

std::string IsoTime(Timestamp time) {
  std::string text = FormatTime(time);
  text[4] = text[7] = '-';
  text[10] = 'T';
  return text;
}

Json ReportAsJson(const ReportEntry& entry, std::string_view text) {
  Json value;
  value["number"] = entry.number;
  value["kind"] = NameOf(entry.kind);
  value["time"] = IsoTime(entry.time);
  value["file"] = PathText(entry.file->path);
  value["fileLine"] = entry.line;
  value["program"] = DecodeText(entry.program);
  value["processId"] = entry.processId;
  value["threadId"] = entry.threadId;
  value["heading"] = DecodeText(entry.heading);
  value["cause"] = DecodeText(entry.cause);
  value["frames"] = DecodeText(entry.frames);
  value["isWhole"] = entry.isWhole;
  if (entry.kind == RecordKind::kExceptionReport) AddException(value, text);
  if (entry.kind == RecordKind::kStatusReport) value["status"] = JsonOf(ParseStatusReport(text));
  if (entry.kind == RecordKind::kBenchmarkReport) AddBenchmark(value, text);
  return value;
}

}  // namespace qellog
