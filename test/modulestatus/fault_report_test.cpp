// Real faults, and the reports about them whole.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "qelibaselib/qelibaselib.h"
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_reader.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/sanitizer.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

void WriteReport(CapturedFault& fault) {
  VemoExceptLogOut(L"fault", "", &fault.record, &fault.context, __LINE__, __FILE__);
}

void RemoveReportFile() {
  LogFolder();
  fs::remove(ChannelFile(channel::kExceptionReport));
}

// All the reports in the file, each of them whole.
std::vector<ExceptionReport> TakeReports() {
  std::vector<ExceptionReport> reports;
  ReportReader reader(ReadWholeFile(ChannelFile(channel::kExceptionReport)));
  while (!reader.AtEnd()) reports.push_back(ReadExceptionReport(reader));
  RemoveReportFile();
  return reports;
}

struct FaultCase {
  const char* name;
  void (*body)();
  DWORD code;
  bool inFunction;  // the program counter is in a function
};

const char g_data[16] = {};

const FaultCase kFaults[] = {
    {"read", [] { ReadThrough(nullptr); }, EXCEPTION_ACCESS_VIOLATION, true},
    {"write", [] { WriteThrough(reinterpret_cast<int*>(0x20)); }, EXCEPTION_ACCESS_VIOLATION, true},
    {"jump to null", [] { CallAddress(nullptr); }, EXCEPTION_ACCESS_VIOLATION, false},
    {"jump into data", [] { CallAddress(g_data); }, EXCEPTION_ACCESS_VIOLATION, false},
    {"divide", [] { Divide(1, 0); }, EXCEPTION_INT_DIVIDE_BY_ZERO, true},
    {"broken chain", [] { ReadWithBrokenChain(nullptr); }, EXCEPTION_ACCESS_VIOLATION, true},
};

TEST(FaultReport, IsWhole) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  for (const auto& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    CapturedFault captured;
    ASSERT_TRUE(Capture(captured, fault.body, &WriteReport));
    const auto reports = TakeReports();
    ASSERT_EQ(reports.size(), 1u);
    const auto& report = reports[0];
    EXPECT_EQ(report.record.at("ExceptionCode"), fault.code);
    EXPECT_EQ(report.registers.at("Eip"), captured.context.Eip);
    EXPECT_EQ(report.stack.size(), 64u);
    ASSERT_FALSE(report.frames.empty());
    EXPECT_EQ(report.frames[0].address, captured.context.Eip);
    EXPECT_TRUE(!fault.inFunction || !report.frames[0].function.empty());
    EXPECT_EQ(report.code.at(20).marked, fault.inFunction || fault.body == kFaults[3].body);
  }
}

TEST(FaultReport, IsWholeForATrappedFloatingPointOperation) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  CapturedFault captured;
  ASSERT_TRUE(Capture(
      captured, [] { DivideTrapping(0); }, &WriteReport));
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].frames.at(0).function, "DivideTrapping");
  // MXCSR in the saved area: the flag of the division by zero, and its mask not set.
  EXPECT_EQ(reports[0].extendedArea.at(24) & 4, 4);
  EXPECT_EQ(reports[0].extendedArea.at(25) & 2, 0);
}

void* FaultAndReport(void* stackOverflow) {
  VemoGetCPUCount();  // the thread's first call in the library
  CapturedFault captured;
  if (!stackOverflow) {
    EXPECT_TRUE(Capture(
        captured, [] { CallReadThrough(nullptr); }, &WriteReport));
  } else {
    // What is left of the stack is not enough for a report: the host writes it when it is back.
    EXPECT_TRUE(Capture(captured, [] { OverflowStack(0); }));
    WriteReport(captured);
  }
  return nullptr;
}

void RunOnThread(size_t stackBytes, bool stackOverflow) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stackBytes);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, &FaultAndReport, stackOverflow ? &thread : nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

TEST(FaultReport, IsWholeOnASmallStack) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  RunOnThread(64 << 10, false);
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].frames.at(0).function, "ReadThrough");
  EXPECT_EQ(reports[0].frames.at(1).function, "CallReadThrough");
}

TEST(FaultReport, IsWholeAfterAStackOverflow) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  RunOnThread(1 << 20, true);
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].record.at("ExceptionCode"), EXCEPTION_STACK_OVERFLOW);
}

TEST(FaultReport, IsWholeForEachOfManyThreads) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  constexpr int kThreads = 16;
  // All of them fault before the first may write.
  const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE, 1000);
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      FaultAndReport(nullptr);
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<unsigned long> threadIds, counts;
  for (const auto& report : TakeReports()) {
    threadIds.insert(report.threadId);
    counts.insert(report.count);
    EXPECT_EQ(report.frames.at(0).address, report.registers.at("Eip"));
  }
  EXPECT_EQ(threadIds.size(), size_t{kThreads});
  EXPECT_EQ(counts.size(), size_t{kThreads});
}

TEST(FaultReport, KeepsWhatWasWrittenWhenItFaults) {
  SKIP_UNDER_ASAN();
  RemoveReportFile();
  TakeLines(channel::kModuleStatusError);
  const auto information = STAND_IN(GetSystemInfo, [](int, SYSTEM_INFO*) { ReadThrough(nullptr); });
  const auto walk = STAND_IN(
      StackWalk, [](int, DWORD, HANDLE, HANDLE, STACKFRAME*, void*, auto...) -> BOOL { return ReadThrough(nullptr); });
  CapturedFault captured;
  ASSERT_TRUE(Capture(
      captured, [] { CallReadThrough(nullptr); }, &WriteReport));
  const std::string text = ReadWholeFile(ChannelFile(channel::kExceptionReport));
  for (const char* part : {"Eip    = ", "= Machine Code Dump =", "= Stack Walk =", "= Raw Stack Dump =",
                           "System Status (GetSystemInfo) =======================\r\n\r\n=", "= Disk Free Space ="}) {
    EXPECT_NE(text.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError),
            (std::vector<std::string>{"StackWalkLogOut(catch(...))", "DebugOutSystemInfo(catch(...))"}));
  RemoveReportFile();
}

}  // namespace
}  // namespace qel::test
