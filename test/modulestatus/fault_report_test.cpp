// Real faults, and the reports about them whole.
#include <set>

#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"

namespace qel::test {
namespace {

void WriteReport(CapturedFault& fault) {
  VemoExceptLogOut(L"fault", "", &fault.record, &fault.context, __LINE__, __FILE__);
}

class FaultReport : public ReportTest {
 protected:
  void SetUp() override { SKIP_UNDER_ASAN(); }
};

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

TEST_F(FaultReport, IsWhole) {
  for (const auto& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    CapturedFault captured;
    ASSERT_TRUE(Capture(captured, fault.body, &WriteReport));
    const auto report = TakeOnlyExceptionReport();
    EXPECT_EQ(report.exception.value().code, fault.code);
    EXPECT_EQ(ValueOf(report.registers, "Eip"), Print("0x%08lx", captured.context.Eip));
    EXPECT_EQ(report.rawStack.size(), 64u);
    ASSERT_FALSE(report.frames.empty());
    EXPECT_EQ(report.frames[0].address, captured.context.Eip);
    EXPECT_TRUE(!fault.inFunction || !report.frames[0].function.empty());
    EXPECT_EQ(report.code.at(20)[0] == '>', fault.inFunction || fault.body == kFaults[3].body);
  }
}

TEST_F(FaultReport, IsWholeForATrappedFloatingPointOperation) {
  CapturedFault captured;
  ASSERT_TRUE(Capture(
      captured, [] { DivideTrapping(0); }, &WriteReport));
  const auto report = TakeOnlyExceptionReport();
  EXPECT_EQ(report.frames.at(0).function, "DivideTrapping");
  // MXCSR in the saved area: the flag of the division by zero, and its mask not set.
  constexpr size_t kLineOfMxcsr = 5 + 1;  // behind the floating-point area
  unsigned int flags = 0, masks = 0;
  const std::string bytes = report.areas.at(kLineOfMxcsr);
  ASSERT_EQ(std::sscanf(bytes.c_str() + bytes.find(" - "), " - %x %x", &flags, &masks), 2);
  EXPECT_EQ(flags & 4, 4u);
  EXPECT_EQ(masks & 2, 0u);
}

void FaultAndReport() {
  VemoGetCPUCount();  // the thread's first call in the library
  CapturedFault captured;
  EXPECT_TRUE(Capture(
      captured, [] { CallReadThrough(nullptr); }, &WriteReport));
}

TEST_F(FaultReport, IsWholeOnASmallStack) {
  OnThreadWithStack(64 << 10, &FaultAndReport);
  const auto report = TakeOnlyExceptionReport();
  EXPECT_EQ(report.frames.at(0).function, "ReadThrough");
  EXPECT_EQ(report.frames.at(1).function, "CallReadThrough");
}

// What is left of the stack is not enough for a report: the host writes it when it is back.
TEST_F(FaultReport, IsWholeAfterAStackOverflow) {
  OnThreadWithStack(1 << 20, [] {
    VemoGetCPUCount();
    CapturedFault captured;
    EXPECT_TRUE(Capture(captured, [] { OverflowStack(0); }));
    WriteReport(captured);
  });
  EXPECT_EQ(TakeOnlyExceptionReport().exception.value().code, EXCEPTION_STACK_OVERFLOW);
}

TEST_F(FaultReport, IsWholeForEachOfManyThreads) {
  constexpr int kThreads = 16;
  // All of them fault before the first may write.
  const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE, 1000);
  std::atomic<int> ready = 0;
  OnThreads(kThreads, [&](int) {
    ++ready;
    while (ready < kThreads) std::this_thread::yield();
    FaultAndReport();
  });
  std::set<unsigned long> threadIds, counts;
  for (const auto& report : TakeExceptionReports()) {
    threadIds.insert(report.threadId);
    counts.insert(report.count);
    EXPECT_EQ(Print("0x%08x", report.frames.at(0).address), ValueOf(report.registers, "Eip"));
  }
  EXPECT_EQ(threadIds.size(), size_t{kThreads});
  EXPECT_EQ(counts.size(), size_t{kThreads});
}

TEST_F(FaultReport, KeepsWhatWasWrittenWhenItFaults) {
  const auto information = STAND_IN(GetSystemInfo, [](auto...) { ReadThrough(nullptr); });
  const auto walk = STAND_IN(StackWalk, [](auto...) { return ReadThrough(nullptr); });
  CapturedFault captured;
  ASSERT_TRUE(Capture(
      captured, [] { CallReadThrough(nullptr); }, &WriteReport));
  const std::string text = ReadWholeFile(ChannelFile(channel::kExceptionReport));
  for (const char* part : {"Eip    = ", "= Machine Code Dump =", "= Stack Walk =", "= Raw Stack Dump =",
                           "System Status (GetSystemInfo) =======================\r\n\r\n=", "= Disk Free Space ="}) {
    EXPECT_NE(text.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError),
            (Messages{"StackWalkLogOut(catch(...))", "DebugOutSystemInfo(catch(...))"}));
}

}  // namespace
}  // namespace qel::test
