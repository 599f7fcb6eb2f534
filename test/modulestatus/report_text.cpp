#include "test/modulestatus/report_text.h"

#include "qellog/record/channel.h"
#include "qellog/record/record_reader.h"

namespace qel::test {
namespace {

// The texts of the records; those of another kind are counted.
std::vector<std::string> CutReports(const std::string& text, qellog::FileRole role, qellog::RecordKind kind,
                                    size_t& others) {
  qellog::MemorySource source(text);
  qellog::RecordReader reader(source, role, 2 * text.size() + qellog::RecordReader::kSmallestBuffer);
  std::vector<std::string> reports;
  others = 0;
  for (qellog::Record record; reader.Next(record);)
    if (record.kind == kind && !record.unfinished)
      reports.emplace_back(record.text);
    else
      ++others;
  return reports;
}

}  // namespace

ReportTest::ReportTest() {
  for (const LogChannel& channel : {channel::kExceptionReport, channel::kModuleStatusReport})
    fs::remove(ChannelFile(channel));
  for (const LogChannel& channel : {channel::kAssert, channel::kModuleStatusError, channel::kWinApiWrap})
    TakeLines(channel);
}

std::string WrittenBy(const std::function<void(std::FILE* stream)>& write) {
  const ScratchFolder folder;
  const std::string path = folder.Narrow("report");
  std::FILE* stream = std::fopen(path.c_str(), "wb");
  if (!stream) return {};
  write(stream);
  std::fclose(stream);
  return ReadWholeFile(path);
}

std::vector<qellog::ExceptionReport> FindWholeExceptionReports(const std::string& text) {
  std::vector<qellog::ExceptionReport> reports;
  size_t others;
  for (const auto& report :
       CutReports(text, qellog::FileRole::kExceptionReports, qellog::RecordKind::kExceptionReport, others)) {
    reports.push_back(qellog::ParseExceptionReport(report));
    if (!reports.back().IsWhole()) reports.pop_back();
  }
  return reports;
}

std::vector<qellog::ExceptionReport> ReadExceptionReports(const std::string& text) {
  size_t others;
  const auto all = CutReports(text, qellog::FileRole::kExceptionReports, qellog::RecordKind::kExceptionReport, others);
  auto whole = FindWholeExceptionReports(text);
  EXPECT_EQ(others, 0u) << text;
  EXPECT_EQ(whole.size(), all.size()) << text;
  return whole;
}

std::vector<qellog::StatusReport> ReadStatusReports(const std::string& text) {
  std::vector<qellog::StatusReport> reports;
  size_t others;
  for (const auto& report :
       CutReports(text, qellog::FileRole::kStatusReports, qellog::RecordKind::kStatusReport, others)) {
    reports.push_back(qellog::ParseStatusReport(report));
    EXPECT_TRUE(reports.back().reachesDrives) << report;
  }
  EXPECT_EQ(others, 0u) << text;
  return reports;
}

std::vector<qellog::ExceptionReport> TakeExceptionReports() {
  const auto file = ChannelFile(channel::kExceptionReport);
  auto reports = ReadExceptionReports(ReadWholeFile(file));
  fs::remove(file);
  return reports;
}

qellog::ExceptionReport TakeOnlyExceptionReport() {
  const auto reports = TakeExceptionReports();
  EXPECT_EQ(reports.size(), 1u);
  return reports.at(0);
}

std::string ValueOf(const std::vector<qellog::NamedValue>& values, const std::string& name) {
  for (const auto& value : values)
    if (value.name == name) return value.value;
  return {};
}

std::string DumpLine(const unsigned char* at, int readable, const char* missing) {
  std::string line = Print("%08lX    ", Number(at));
  for (int i = 0; i < 16; ++i) {
    if (i >= readable && !*missing) return line + (i % 4 == 0 && i > 0 ? "- " : "");
    if (i % 4 == 0 && i > 0) line += "- ";
    line += i < readable ? Print("%02x ", at[i]) : missing;
  }
  return line;
}

}  // namespace qel::test
