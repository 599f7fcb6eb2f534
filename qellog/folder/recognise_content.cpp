#include "qellog/folder/recognise_content.h"

#include "qellog/record/record_reader.h"
#include "qellog/system/input_file.h"

namespace qellog {
namespace {

constexpr std::size_t kBytesLookedAt = 8192;

FileRole RoleOf(const Record& record) {
  switch (record.kind) {
    case RecordKind::kExceptionReport:
      return FileRole::kExceptionReports;
    case RecordKind::kStatusReport:
      return FileRole::kStatusReports;
    case RecordKind::kBenchmarkReport:
      return FileRole::kBenchmarkReports;
    default:
      return record.line.memoryLoad ? FileRole::kChannel : FileRole::kDayHistory;
  }
}

}  // namespace

std::optional<FileRole> RoleOf(std::string_view firstBytes) {
  MemorySource source(firstBytes);
  RecordReader reader(source, FileRole::kMixed, 2 * kBytesLookedAt);
  Record record;
  while (reader.Next(record))
    if (record.kind == RecordKind::kLine || IsReport(record)) return RoleOf(record);
  return std::nullopt;
}

std::optional<FileRole> RoleByContent(const std::filesystem::path& path, std::string& failure) {
  InputFile file(path);
  char bytes[kBytesLookedAt];
  const std::size_t count = file.Read(bytes, sizeof bytes);
  failure = file.Failure();
  return RoleOf(std::string_view(bytes, count));
}

}  // namespace qellog
