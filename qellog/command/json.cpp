#include "qellog/command/request.h"
#include "qellog/output/json_text.h"
#include "qellog/version.h"

namespace qellog {
namespace {

/// Writes the elements of a list one by one, so that the document may be larger than memory.
class ListWriter {
 public:
  ListWriter(Output& output, std::string_view name) : output_(output) {
    output_.Write(",\n\"" + std::string(name) + "\": [");
  }
  void Write(const std::string& element) {
    output_.Write((isFirst_ ? "\n" : ",\n") + element);
    isFirst_ = false;
  }
  void End() { output_.Write("\n]"); }

 private:
  Output& output_;
  bool isFirst_ = true;
};

void WriteHead(Output& output, const std::vector<LogFile>& files) {
  output.Write("{\n\"schema\": \"qellog\",\n\"schemaVersion\": " + std::to_string(kJsonSchemaVersion) +
               ",\n\"program\": " + JsonOfText("qellog " QELLOG_VERSION));
  ListWriter list(output, "files");
  for (const LogFile& file : files)
    list.Write("{\"path\": " + JsonOfText(PathText(file.path)) + ", \"channel\": " + JsonOfText(file.channel) +
               ", \"bytes\": " + std::to_string(file.size) + "}");
  list.End();
}

}  // namespace

Outcome RunJson(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  WriteHead(output, files);
  SummaryBuilder summary(files);
  ListWriter lines(output, "records");
  {
    MergedRecords records(files, request.filter, problems.Teller());
    while (const FileRecord* const record = records.Next()) {
      summary.Add(*record);
      lines.Write(JsonOfRecord(*record));
    }
  }
  lines.End();
  ListWriter reports(output, "reports");
  ForEachReport(files, request.filter, problems.Teller(), [&](const ReportEntry& entry, std::string_view text) {
    reports.Write(JsonOfReport(entry, text));
    return true;
  });
  reports.End();
  output.Write(",\n\"summary\": " + JsonOfSummary(summary.Finish()) + "\n}\n");
  return Outcome::kGood;
}

}  // namespace qellog
