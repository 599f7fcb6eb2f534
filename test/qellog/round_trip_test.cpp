// What the library writes is what the reader reads, field by field: a change of a format that forgets the reader fails.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <map>

#include "qelibaselib/qelibaselib.h"
#include "qellog/report/benchmark_report.h"
#include "qellog/report/exception_report.h"
#include "qellog/report/report_list.h"
#include "qellog/text/decode_text.h"
#include "test/support/log_folder.h"

namespace {

using namespace qellog;
namespace channel = qel::channel;

class QellogRoundTrip : public testing::Test {
 protected:
  QellogRoundTrip() {
    for (const auto& entry : std::filesystem::directory_iterator(qel::test::LogFolder()))
      std::filesystem::remove(entry.path());
    GetModuleFileNameA(nullptr, program, MAX_PATH);
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
  char program[MAX_PATH] = "";
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

CONTEXT MakeContext(const char* stack) {
  CONTEXT context;
  auto* const words = reinterpret_cast<DWORD*>(&context);
  for (size_t i = 0; i < sizeof context / sizeof(DWORD); ++i) words[i] = 0xA0000000u + static_cast<DWORD>(i);
  context.Eip = reinterpret_cast<DWORD>(&VemoExceptLogOut);
  context.Esp = reinterpret_cast<DWORD>(stack);
  context.Ebp = reinterpret_cast<DWORD>(__builtin_frame_address(0));
  return context;
}

std::string ValueOf(const std::vector<NamedValue>& values, std::string_view name) {
  for (const auto& value : values)
    if (value.name == name) return value.value;
  return "missing";
}

std::string Hex(DWORD value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(value));
  return text;
}

void ExpectStatus(const StatusReport& status, const char* program) {
  EXPECT_EQ(status.processId, GetCurrentProcessId());
  EXPECT_EQ(status.program, program);
  EXPECT_EQ(status.banner.size(), 6u);
  EXPECT_EQ(ValueOf(status.banner, "OmpNum"), std::to_string(VemoOMPGetNumThreads()));
  EXPECT_EQ(status.system.size(), 5u + 9u);
  SYSTEM_INFO system;
  GetSystemInfo(&system);
  EXPECT_EQ(ValueOf(status.system, "dwNumberOfProcessors"), std::to_string(system.dwNumberOfProcessors));
  EXPECT_FALSE(status.modules.empty());
  EXPECT_FALSE(status.freeRegions.empty());
  for (const auto& region : status.freeRegions) EXPECT_EQ(region.mebibytes, (region.end - region.start) >> 20);
  ASSERT_EQ(status.freeSums.size(), 4u);
  EXPECT_EQ(DecodeText(status.freeSums[0].name), "空き容量");
  EXPECT_EQ(DecodeText(status.freeSums[3].name), "連続空き容量");
  EXPECT_EQ(status.memory.size(), 8u);
  EXPECT_TRUE(status.reachesDrives);
}

TEST_F(QellogRoundTrip, ExceptionReports) {
  const char stack[2048] = "words";
  const CONTEXT context = MakeContext(stack);
  EXCEPTION_RECORD record{};
  record.ExceptionCode = 0xC0000005;
  record.ExceptionFlags = 1;
  record.ExceptionAddress = reinterpret_cast<void*>(0x1234);
  record.NumberParameters = 2;
  record.ExceptionInformation[1] = 0x30;
  VemoExceptLogOut(L"viewer", "while\nloading (1)", &record, &context, 42, "folder/s.cpp");
  VemoExceptLogOut(nullptr, nullptr, nullptr, nullptr, 1, nullptr);

  std::vector<ExceptionReport> reports;
  std::vector<std::string> texts;
  ForEach([&](const FileRecord& found) {
    if (found.file->channel != "exception") return;  // beside the mark in the assertion channel
    EXPECT_EQ(found.record.kind, RecordKind::kExceptionReport);
    reports.push_back(ParseExceptionReport(found.record.text));
    texts.emplace_back(found.record.text);
  });
  ASSERT_EQ(reports.size(), 2u);
  const ExceptionReport& report = reports[0];
  EXPECT_EQ(report.heading, "viewer(while\nloading (1))");
  EXPECT_EQ(report.program, program);
  EXPECT_EQ(report.count, 1u);
  EXPECT_EQ(report.processId, GetCurrentProcessId());
  EXPECT_EQ(report.threadId, GetCurrentThreadId());
  EXPECT_EQ(report.sourceFile, "s.cpp");
  EXPECT_EQ(report.sourceLine, 42);
  ASSERT_TRUE(report.exception);
  EXPECT_EQ(report.exception->code, 0xC0000005);
  EXPECT_EQ(report.exception->flags, 1u);
  EXPECT_EQ(report.exception->address, 0x1234u);
  EXPECT_EQ(report.exception->parameters, (std::vector<std::uint32_t>{0, 0x30}));
  const std::pair<const char*, DWORD> registers[] = {
      {"Eax", context.Eax},     {"Ecx", context.Ecx},
      {"Edi", context.Edi},     {"Eip", context.Eip},
      {"Esp", context.Esp},     {"EFlags", context.EFlags},
      {"SegGs", context.SegGs}, {"ContextFlags", context.ContextFlags},
      {"Dr7", context.Dr7},     {"FloatSave.ControlWord", context.FloatSave.ControlWord}};
  for (const auto& [name, value] : registers) EXPECT_EQ(ValueOf(report.registers, name), Hex(value)) << name;
  EXPECT_EQ(report.registers.size(), 16u + 7u + 8u);
  EXPECT_EQ(report.areas.size(), 5u + 32u);
  ASSERT_EQ(report.code.size(), 40u);
  EXPECT_TRUE(report.code[20].starts_with('>'));
  ASSERT_EQ(report.rawStack.size(), 64u) << texts[0].substr(texts[0].find("= Stack Walk ="), 300);
  EXPECT_NE(report.rawStack[0].find("77 6f 72 64 - 73"), std::string::npos);
  ASSERT_FALSE(report.frames.empty());
  EXPECT_EQ(report.frames[0].address, context.Eip);
  size_t named = 0;
  for (size_t at = texts[0].find("() + 0x"); at != std::string::npos; at = texts[0].find("() + 0x", at + 1)) ++named;
  EXPECT_EQ(static_cast<size_t>(std::count_if(report.frames.begin(), report.frames.end(),
                                              [](const StackFrame& frame) { return !frame.function.empty(); })),
            named);
  EXPECT_TRUE(report.IsWhole());
  ExpectStatus(*report.status, program);

  const ExceptionReport& bare = reports[1];
  EXPECT_EQ(bare.heading, "()");
  EXPECT_EQ(bare.count, 2u);
  EXPECT_FALSE(bare.exception);
  EXPECT_TRUE(bare.registers.empty() && bare.code.empty() && bare.frames.empty() && bare.rawStack.empty());
  EXPECT_TRUE(bare.IsWhole());
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
      return ExpectStatus(report, program);
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
