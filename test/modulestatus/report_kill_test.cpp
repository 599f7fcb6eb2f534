#include <chrono>
#include <random>

#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"

namespace qel::test {
namespace {

using std::chrono::steady_clock;

constexpr int kKills = sizeof(wchar_t) == 2 ? 20 : 100;  // a process takes its time to start there

void WriteReport(CapturedFault& fault) {
  VemoExceptLogOut(L"killed", "", &fault.record, &fault.context, __LINE__, __FILE__);
}

CHILD_ROLE(ReportForEver) {
  LogFolder();
  const auto symbols = OwnDebugHelpOnly();
  Say("ready");
  for (;;) {
    CapturedFault captured;
    Capture(
        captured, [] { CallReadThrough(nullptr); }, &WriteReport);
  }
}

TEST(ReportKill, TheNextReportIsWhole) {
  const auto file = ChannelFile(channel::kExceptionReport);
  const auto symbols = OwnDebugHelpOnly();
  CapturedFault captured;
  ASSERT_TRUE(Capture(
      captured, [] { CallReadThrough(nullptr); }, &WriteReport));
  const auto start = steady_clock::now();
  WriteReport(captured);
  const auto oneReport = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);
  std::mt19937 random(1);
  int cut = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    ChildProcess child("ReportForEver");
    ASSERT_EQ(child.WaitForLine(), "ready");
    std::this_thread::sleep_for(oneReport * (random() % 300) / 100);
    child.Kill();
    const auto before = fs::exists(file) ? fs::file_size(file) : 0;
    const std::string left = ReadWholeFile(file);
    if (!left.ends_with("\r\n") || left.rfind("= Disk Free Space =") < left.rfind("= File Information =")) ++cut;
    VemoExceptLogOut(L"next", "", &captured.record, &captured.context, 1, "source.cpp");
    const auto reports = ReadExceptionReports(ReadWholeFile(file).substr(before));
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].heading, "next()");
    ASSERT_FALSE(HasFailure()) << "after kill " << kill;
    fs::remove(file);
  }
  EXPECT_GT(cut, kKills / 10) << "the kills came at the wrong times";
}

}  // namespace
}  // namespace qel::test
