#include <memory>

#include "qellog/command/request.h"
#include "qellog/html/page_files.h"
#include "qellog/html/page_records.h"
#include "qellog/html/timeline_counts.h"
#include "qellog/output/json_text.h"
#include "qellog/system/terminal.h"
#include "qellog/version.h"

namespace qellog {
namespace {

constexpr std::size_t kMostReports = 500;

struct PageReports {
  std::vector<std::string> json;
  std::vector<Timestamp> crashes;
  std::size_t count = 0;
};

PageReports CollectReports(const std::vector<LogFile>& files, const Request& request, Problems& problems) {
  PageReports reports;
  ForEachReport(files, request.filter, problems.Teller(), [&](const ReportEntry& entry, std::string_view text) {
    ++reports.count;
    if (entry.kind == RecordKind::kExceptionReport) reports.crashes.push_back(entry.time);
    if (reports.json.size() < kMostReports) reports.json.push_back(JsonOfReport(entry, text));
    return true;
  });
  return reports;
}

/// The channels of the files, each once, with the numbers that the page's rows have.
class ChannelNumbers {
 public:
  explicit ChannelNumbers(const std::vector<LogFile>& files) {
    for (const LogFile& file : files) numbers_.try_emplace(file.channel, 0);
    std::size_t number = 0;
    for (auto& [name, value] : numbers_) value = number++;
  }
  std::size_t Of(const LogFile& file) const { return numbers_.find(file.channel)->second; }
  std::size_t Count() const { return numbers_.size(); }
  std::string Json() const {
    std::string json;
    for (const auto& [name, number] : numbers_) json += (number > 0 ? "," : "") + JsonOfText(name);
    return "[" + json + "]";
  }

 private:
  std::map<std::string, std::size_t> numbers_;
};

/// Writes the page's data as one value of JSON that no element of the page ends in.
class DataWriter {
 public:
  explicit DataWriter(Output& output) : output_(output) {}
  void Member(std::string_view name, std::string_view json) {
    output_.Write(EmbeddableJson((isFirst_ ? "{\"" : ",\n\"") + std::string(name) + "\":" + std::string(json)));
    isFirst_ = false;
  }
  void Raw(std::string_view json) { output_.Write(EmbeddableJson(json)); }

 private:
  Output& output_;
  bool isFirst_ = true;
};

std::string JsonList(const std::vector<std::string>& elements) {
  std::string json;
  for (const std::string& element : elements) json += (json.empty() ? "[" : ",\n") + element;
  return json.empty() ? "[]" : json + "]";
}

void WriteData(const std::vector<LogFile>& files, const Request& request, Problems& problems, Output& output) {
  const PageReports reports = CollectReports(files, request, problems);
  const ChannelNumbers channels(files);
  SummaryBuilder summary(files);
  TimelineCounts timeline(channels.Count());
  PageRecords rows(reports.crashes, request.lineLimit);
  MergedRecords records(files, request.filter, problems.Teller());
  while (const FileRecord* const record = records.Next()) {
    const std::size_t channel = channels.Of(*record->file);
    summary.Add(*record);
    if (record->record.time == Timestamp{}) continue;
    timeline.Add(channel, record->record.time);
    rows.Add(*record, channel);
  }
  DataWriter data(output);
  data.Member("program", JsonOfText("qellog " QELLOG_VERSION));
  data.Member("title", JsonOfText(request.names.front()));
  data.Member("summary", JsonOfSummary(summary.Finish()));
  data.Member("channels", channels.Json());
  data.Member("timeline", timeline.Json());
  data.Member("programs", rows.JsonOfPrograms());
  data.Member("sources", rows.JsonOfSources());
  data.Member("errorNames", rows.JsonOfErrorNames());
  data.Member("reportCount", std::to_string(reports.count));
  data.Member("reports", JsonList(reports.json));
  data.Member("recordCount", std::to_string(rows.Count()));
  data.Member("records", "[");
  bool isFirst = true;
  rows.ForEachRow([&](const std::string& row) {
    data.Raw((isFirst ? "\n" : ",\n") + row);
    isFirst = false;
  });
  output.Write("]}");
}

/// Writes the frame up to the mark and gives what is behind it.
std::string_view WriteUpTo(std::string_view mark, std::string_view frame, Output& output) {
  const std::size_t place = frame.find(mark);
  output.Write(frame.substr(0, place));
  return frame.substr(place + mark.size());
}

void WritePage(const std::vector<LogFile>& files, const Request& request, Problems& problems, Output& output) {
  std::string_view rest = WriteUpTo("@STYLE@", kPageFrame, output);
  for (const std::string_view style : kPageStyles) output.Write(style);
  rest = WriteUpTo("@DATA@", rest, output);
  WriteData(files, request, problems, output);
  rest = WriteUpTo("@SCRIPTS@", rest, output);
  for (const std::string_view script : kPageScripts) output.Write("<script>\n" + std::string(script) + "</script>\n");
  output.Write(rest);
  output.Flush();
}

}  // namespace

Outcome RunHtml(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  if (request.pageFile == "-") {
    WritePage(files, request, problems, output);
    return Outcome::kGood;
  }
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(OpenForWriting(request.pageFile), &std::fclose);
  if (!stream) {
    problems.Tell(request.pageFile, "cannot be written");
    return Outcome::kUnreadable;
  }
  Output page(stream.get());
  try {
    WritePage(files, request, problems, page);
  } catch (const OutputClosed&) {
    problems.Tell(request.pageFile, "could not be written to its end");
  }
  return Outcome::kGood;
}

}  // namespace qellog
