#include "qellog/command/record_writer.h"

#include "qellog/output/json_text.h"
#include "qellog/output/record_text.h"

namespace qellog {

RecordWriter::RecordWriter(const Request& request, Output& output)
    : format_(request.format), colours_(request.colours), output_(output) {
  if (format_ == Format::kCsv) output_.Write(CsvHeader());
}

void RecordWriter::Write(const FileRecord& record) { output_.Write(TextOf(record)); }

std::string RecordWriter::TextOf(const FileRecord& record) const {
  switch (format_) {
    case Format::kJson:
      return JsonOfRecord(record) + "\n";
    case Format::kCsv:
      return CsvOfRecord(record);
    case Format::kText:
      break;
  }
  return TextOfRecord(record, colours_);
}

}  // namespace qellog
