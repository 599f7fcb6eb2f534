// What the library writes is what the reader reads, field by field: a change of a format that forgets the reader fails.
// The tests of the reports themselves (test/modulestatus/) read them with this reader too.
#include <gtest/gtest.h>

#include <map>

#include "qelibaselib/qelibaselib.h"
#include "qellog/report/benchmark_report.h"
#include "qellog/report/report_list.h"
#include "test/support/log_folder.h"

namespace {

using namespace qellog;
namespace channel = qel::channel;

class QellogRoundTrip : public testing::Test {
 protected:
  QellogRoundTrip() {
    for (const auto& entry : std::filesystem::directory_iterator(qel::test::LogFolder()))
      std::filesystem::remove(entry.path());
  }
  // Every record of the folder with its channel.
  static void ForEach(const std::function<void(const FileRecord&)>& use) {
    const auto fail = [](const std::string& name, const std::string& problem) { ADD_FAILURE() << name << problem; };
    const auto files = FindLogFiles({PathText(qel::test::LogFolder())}, fail);
    const Filter everything;
    MergedRecords records(files, everything, fail);
    while (const FileRecord* const record = records.Next()) use(*record);
  }
  static Timestamp Now() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    return {MakeDay(now.wYear, now.wMonth, now.wDay)->milliseconds +
            ((now.wHour * 60 + now.wMinute) * 60 + now.wSecond) * std::int64_t{1000} + now.wMilliseconds};
  }
  const std::string program = qel::test::ProgramPath();
};

const std::vector<std::string>& OddTexts() {
  static const std::vector<std::string> texts = {"",
                                                 "plain",
                                                 "100% %s %n",
                                                 "\x1b[2J\x07",
                                                 "two\nlines",
                                                 "ends in a line end\n",
                                                 "\n\n",
                                                 "a\r\nb\rc",
                                                 ", 1, 2, s.cpp(3):m",
                                                 "x 2024/03/05, 14:07:09.042",
                                                 "2024/03/05 14:07:09.042, ",
                                                 "#####\n#####\n##### SystemBenchmark",
                                                 qel::layout::kExceptionSeparator,
                                                 "\x8B\xF3\x82\xAB",
                                                 "\xFF\xFE",
                                                 "<script>alert(1)</script>",
                                                 std::string(100'000, 'x')};
  return texts;
}

TEST_F(QellogRoundTrip, LinesOfEveryChannelAndTheDayHistory) {
  const qel::LogChannel channels[] = {channel::kAssert,
                                      channel::kMisc,
                                      channel::kLock,
                                      channel::kFileOperation,
                                      channel::kFlush,
                                      channel::kMemoryAllocation,
                                      channel::kMemoryOperation,
                                      channel::kModuleStatusError,
                                      channel::kWinApiWrap};
  const char* const sources[] = {"s.cpp", "C:\\a (1), b\\s.cpp", ""};
  const Timestamp before = Now();
  std::vector<int> expected;
  int line = -1;
  for (const std::string& text : OddTexts()) {
    for (const auto& channel : channels)
      VemoLogOutFile(channel.mutexStem, qel::test::ChannelFile(channel).wstring().c_str(), 60000, line,
                     sources[(line + 1) % 3], text.c_str());
    VemoLogOutFileDayHis(L"QellogRoundTrip", qel::test::LogFolder().wstring().c_str(), L"history", L"log", 60000, line,
                         sources[(line + 1) % 3], text.c_str());
    ++line;
  }
  std::map<std::string, int> next;
  ForEach([&](const FileRecord& found) {
    ASSERT_EQ(found.record.kind, RecordKind::kLine) << found.file->channel;
    const LogLine& read = found.record.line;
    const int number = next[found.file->channel]++;
    EXPECT_EQ(MessageOf(read), OddTexts()[static_cast<size_t>(number)]) << found.file->channel;
    EXPECT_EQ(read.sourceLine, number - 1);
    EXPECT_EQ(read.sourceFile, sources[number % 3]);
    EXPECT_EQ(read.program, program);
    EXPECT_EQ(read.processId, GetCurrentProcessId());
    EXPECT_EQ(read.threadId, GetCurrentThreadId());
    EXPECT_TRUE(before <= read.time && read.time <= Now());
    EXPECT_EQ(read.memoryLoad.has_value(), found.file->role != FileRole::kDayHistory);
    EXPECT_LE(read.memoryLoad.value_or(0), 100u);
    EXPECT_FALSE(found.record.unfinished);
  });
  EXPECT_EQ(next.size(), 10u);
  for (const auto& [name, count] : next) EXPECT_EQ(static_cast<size_t>(count), OddTexts().size()) << name;
}

TEST_F(QellogRoundTrip, EntryPointsWriteToTheirChannels) {
  VemoLogOutAssert(nullptr, 1, "s");
  VemoLogOutMisc("m", 2, "s");
  VemoLockLogOut("m", 3, "s");
  VemoFileLogOut(nullptr, 4, "s");
  std::map<std::string, std::string> messages;
  ForEach([&](const FileRecord& found) { messages[found.file->channel] = found.record.line.message; });
  EXPECT_EQ(messages,
            (std::map<std::string, std::string>{{"assert", ""}, {"misc", "m"}, {"lock", "m"}, {"file", "(null)"}}));
}

TEST_F(QellogRoundTrip, StatusAndBenchmarkReports) {
  VemoModuleStatusLogOut(L"title", "odd\n##### message");
  CQelSystemBenchmark benchmark;
  T_RESULT& result = benchmark.m_result;
  result.memorySequentialRead = 12.25;
  result.mappedRandomReadWrite = 1234.5;
  GetLocalTime(&result.localTime);
  benchmark.LogOutResult("message", L"title", 7);
  int seen = 0;
  ForEach([&](const FileRecord& found) {
    ++seen;
    if (found.record.kind == RecordKind::kStatusReport) {
      const StatusReport report = ParseStatusReport(found.record.text);
      EXPECT_EQ(report.heading, "title(odd\n##### message)");
      EXPECT_EQ(report.processId, GetCurrentProcessId());
      EXPECT_EQ(report.program, program);
      EXPECT_TRUE(report.reachesDrives);
      return;
    }
    ASSERT_EQ(found.record.kind, RecordKind::kBenchmarkReport);
    const BenchmarkReport report = ParseBenchmarkReport(found.record.text);
    ASSERT_GE(report.figures.size(), 12u);
    EXPECT_EQ(report.figures[0].name, "Memory - Sequential Read");
    EXPECT_EQ(report.figures[0].mebibytesPerSecond, 12.25);
    EXPECT_EQ(report.figures[11].name, "MMF - Random ReadWrite");
    EXPECT_EQ(report.figures[11].mebibytesPerSecond, 1234.5);
    EXPECT_TRUE(report.time && report.measured);
    EXPECT_EQ(report.heading, "title(message), 7");
  });
  EXPECT_EQ(seen, 2);
}

}  // namespace
