#include "qellog/command/record_writer.h"
#include "qellog/command/request.h"

namespace qellog {

Outcome RunCat(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  RecordWriter writer(request, output);
  MergedRecords records(files, request.filter, problems.Teller());
  while (const FileRecord* const record = records.Next()) writer.Write(*record);
  return Outcome::kGood;
}

}  // namespace qellog
