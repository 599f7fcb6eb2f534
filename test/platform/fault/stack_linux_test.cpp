// Faults where the stack is small, used up, or not the thread's own.
#include <alloca.h>
#include <signal.h>
#include <unistd.h>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/platform/fault/reports.h"
#include "test/platform/fault/thread_stack_linux.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr size_t kKilobyte = 1024;

size_t g_hostsStack;

DWORD CodeOfOverflow() {
  int destroyed = 0;
  try {
    fault::Run([&] { OverflowStack(destroyed); });
  } catch (const CSE& exception) {
    return exception.record.ExceptionCode;
  }
  return 0;
}

TEST(StackOverflow, IsCaughtWhateverTheStackAndWhereverItEnds) {
  SKIP_UNDER_ASAN();
  for (const size_t bytes : {16, 20, 32, 64, 256, 1024, 8192}) {
    int failed = 0;
    OnThreadWithStack(bytes * kKilobyte, [&] {
      fault::SetTranslator(&fault::ThrowCse);
      for (size_t offset = 0; offset<4096; offset += bytes> 256 ? 512 : 64) {
        volatile char* skipped = static_cast<char*>(alloca(32));
        skipped[0] = 0;
        WithStackLeft(RemainingStack() - offset % 1024,
                      [&] { failed += CodeOfOverflow() != EXCEPTION_STACK_OVERFLOW; });
      }
    });
    EXPECT_EQ(failed, 0) << bytes;
  }
}

CHILD_ROLE(FaultWithStackLeft) {
  alarm(30);
  LogFolder();
  SetUnhandledExceptionFilter(&WriteReport);
  bool failed = false;
  OnThreadWithStack(std::stoul(arguments[0]),
                    [&] { WithStackLeft(std::stoul(arguments[1]), [&] { failed = FaultInExport(); }); });
  return failed ? 42 : 1;
}

// The failure value; or, where not even the guard has room, a report and the end of the process.
TEST(StackLeft, DecidesBetweenFailureValueAndReport) {
  SKIP_UNDER_ASAN();
  for (const size_t left : {16, 256, 512, 1024, 1536, 2048, 2304, 2560, 2816, 3072, 3584, 4096, 6144, 8192, 12288}) {
    SCOPED_TRACE(left);
    TakeReports();
    TakeMessages(channel::kAssert);
    const int end = ChildProcess("FaultWithStackLeft", {"65536", std::to_string(left)}).Wait();
    EXPECT_TRUE(end == 42 || (end == -SIGSEGV && left < 8192)) << end;
    EXPECT_EQ(TakeReports().size(), 1u);
    const auto messages = TakeMessages(channel::kAssert);
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(), [](const auto& m) { return m.ends_with("_CATCH_AE"); }),
              end == 42);
  }
}

TEST(SmallStack, GetsAWholeReport) {
  SKIP_UNDER_ASAN();
  for (const char* bytes : {"16384", "32768"}) {
    TakeReports();
    EXPECT_EQ(ChildProcess("FaultWithStackLeft", {bytes, "1000000"}).Wait(), 42);
    EXPECT_TRUE(IsWhole(TakeReports().at(0)));
  }
}

enum class ReportPlace { kHere, kBelowFault, kOwnStack };

ReportPlace PlaceOfReport(size_t left, std::ptrdiff_t faultBelow) {
  uintptr_t here = 0, limit = 0, fault = 0, report = 0;
  OnThreadWithStack(8192 * kKilobyte, [&] {
    fault::Run([] {});  // the thread is known from its first guard on
    WithStackLeft(left, [&] {
      here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
      limit = here - RemainingStack();
      CONTEXT context{};
      context.Esp = fault = here - static_cast<uintptr_t>(faultBelow);
      const auto note = [](void* place) {
        *static_cast<uintptr_t*>(place) = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
      };
      fault::CallBelow(faultBelow != 0 ? &context : nullptr, note, &report);
    });
  });
  if (report < limit || report > here) return ReportPlace::kOwnStack;
  return faultBelow > 0 && report < fault ? ReportPlace::kBelowFault : ReportPlace::kHere;
}

// A report that runs out of stack loses sections and still has its first and its last.
TEST(StackLeft, DecidesWhereAReportIsWritten) {
  SKIP_UNDER_ASAN();
  struct Row {
    int left, faultBelow;  // in KiB; 0 for what has no place, less for a fault further up, more than is left for
                           // another stack
    ReportPlace place;
  };
  for (const Row& row : {Row{120, 0, ReportPlace::kOwnStack},
                         {140, 0, ReportPlace::kHere},
                         {120, -64, ReportPlace::kOwnStack},
                         {140, -64, ReportPlace::kHere},
                         {140, 4096, ReportPlace::kHere},
                         {120 + 64, 64, ReportPlace::kOwnStack},
                         {140 + 64, 64, ReportPlace::kBelowFault},
                         {4096, 1016, ReportPlace::kBelowFault},
                         {4096, 1032, ReportPlace::kOwnStack}})
    EXPECT_EQ(PlaceOfReport(row.left * kKilobyte, row.faultBelow * static_cast<int>(kKilobyte)), row.place)
        << row.left << ' ' << row.faultBelow;
}

// What the kernel switches to may be the host's, and as small as the kernel allows.
CHILD_ROLE(OverflowStack) {
  alarm(30);
  LogFolder();
  SetUnhandledExceptionFilter(&WriteReport);
  const size_t hosts = std::stoul(arguments[0]);
  OnThreadWithStack(256 * kKilobyte, [&] {
    static constexpr char kMark = 0x5A;
    static char block[64 * kKilobyte];
    std::memset(block, kMark, sizeof block);
    if (hosts != 0) {
      stack_t stack{};
      stack.ss_sp = block + sizeof block - hosts;
      stack.ss_size = hosts;
      sigaltstack(&stack, nullptr);
    }
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* pointers) -> LONG {
      WriteReport(pointers);
      const size_t rest = sizeof block - g_hostsStack;
      return std::count(block, block + rest, kMark) == static_cast<std::ptrdiff_t>(rest) ? EXCEPTION_CONTINUE_SEARCH
                                                                                         : EXCEPTION_EXECUTE_HANDLER;
    });
    g_hostsStack = hosts;
    int destroyed = 0;
    OverflowStack(destroyed);
  });
  return 2;
}

TEST(StackOverflow, OfAThreadThatNeverCalledTheLibraryIsReported) {
  SKIP_UNDER_ASAN();
  for (const char* hosts : {"0", "8192", "16384", "32768"}) {
    SCOPED_TRACE(hosts);
    TakeReports();
    EXPECT_EQ(ChildProcess("OverflowStack", {hosts}).Wait(), -SIGSEGV);
    const auto reports = TakeReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(IsWhole(reports[0]));
    EXPECT_NE(reports[0].find("ExceptionCode    = 0xc00000fd"), std::string::npos);
  }
}

}  // namespace
}  // namespace qel::test
