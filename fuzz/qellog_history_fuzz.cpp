// fuzz-sources: qellog/record/record_reader.cpp qellog/record/record_start.cpp qellog/record/text_search.cpp qellog/record/log_line.cpp qellog/record/timestamp.cpp qellog/report/report_head.cpp
// Whole files of every role, cut into records with the smallest buffer. The first byte chooses the role, the second
// the length of the text that is searched for. Checked: records stand one behind the other, no byte is counted twice,
// and a search for lines finds what reading all of them would.
#include <cstdlib>
#include <vector>

#include "qellog/record/record_reader.h"

namespace {

using namespace qellog;

void Require(bool holds) {
  if (!holds) std::abort();
}

/// Where the records begin that hold the text; all of them without one.
std::vector<std::uint64_t> Offsets(std::string_view bytes, FileRole role, const TextSearch& search, bool skip) {
  MemorySource source(bytes);
  RecordReader reader(source, role, RecordReader::kSmallestBuffer);
  std::vector<std::uint64_t> offsets;
  Record record;
  std::uint64_t end = 0;
  while (skip ? reader.NextWith(search, record) : reader.Next(record)) {
    Require(record.offset >= end);
    end = record.offset + record.text.size() + record.droppedBytes;
    Require(end <= bytes.size());
    if (search.IsIn(record.text)) offsets.push_back(record.offset);
  }
  return offsets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const auto role = static_cast<FileRole>(data[0] % 6);
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::size_t length = std::min<std::size_t>(data[1] % 16, bytes.size());
  const TextSearch search(std::string(bytes.substr(bytes.size() - length)), LetterCase::kExact);
  Require(Offsets(bytes, role, search, true) == Offsets(bytes, role, search, false));
  return 0;
}
