#include "qellog/command/request.h"
#include "qellog/output/json_text.h"
#include "qellog/summary/summary_text.h"

namespace qellog {

Outcome RunSummary(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  SummaryBuilder builder(files);
  MergedRecords records(files, request.filter, problems.Teller());
  while (const FileRecord* const record = records.Next()) builder.Add(*record);
  const Summary summary = builder.Finish();
  if (request.format == Format::kJson)
    output.Write(JsonOfSummary(summary) + "\n");
  else
    output.Write(TextOfSummary(summary, Colours(request.colours)));
  return Outcome::kGood;
}

}  // namespace qellog
