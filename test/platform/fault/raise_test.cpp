// RaiseException under guards, under the host's own handlers and under nobody's.

#include <iterator>
#include <numeric>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr DWORD kCode = 0xE0001234;

OWN_FRAME CSE CatchRaised(DWORD flags, DWORD count, const ULONG_PTR* arguments) {
  const fault::Translator previous = fault::SetTranslator(&fault::ThrowCse);
  CSE caught{};
  try {
    fault::Run([&] { RaiseException(kCode, flags, count, arguments); });
  } catch (const CSE& exception) {
    caught = exception;
  }
  fault::SetTranslator(previous);
  return caught;
}

TEST(Raise, RecordAndContextAreThoseOfTheCall) {
  const ULONG_PTR arguments[] = {0x11, 0x22, 0x33};
  const CSE caught = CatchRaised(0, std::size(arguments), arguments);
  const EXCEPTION_RECORD& record = caught.record;
  EXPECT_EQ(record.ExceptionCode, kCode);
  EXPECT_EQ(record.ExceptionFlags, 0u);
  EXPECT_EQ(record.ExceptionRecord, nullptr);
  ASSERT_EQ(record.NumberParameters, 3u);
  EXPECT_TRUE(std::equal(std::begin(arguments), std::end(arguments), record.ExceptionInformation));
  EXPECT_EQ(reinterpret_cast<DWORD>(record.ExceptionAddress), caught.context.Eip);
  const auto here = reinterpret_cast<DWORD>(__builtin_frame_address(0));
  EXPECT_LT(caught.context.Esp, here);
  EXPECT_GT(caught.context.Esp, here - 0x10000);
}

TEST(Raise, ParametersAndFlagsAreCut) {
  ULONG_PTR arguments[20];
  std::iota(std::begin(arguments), std::end(arguments), 1);
  EXPECT_EQ(CatchRaised(0, 20, arguments).record.NumberParameters, 15u);
  EXPECT_EQ(CatchRaised(0, 5, nullptr).record.NumberParameters, 0u);
  EXPECT_EQ(CatchRaised(0xFFFFFFFF, 0, nullptr).record.ExceptionFlags, EXCEPTION_NONCONTINUABLE);
}

OWN_FRAME void RaiseInNoexcept() noexcept { RaiseException(kCode, 0, 0, nullptr); }

TEST(Raise, InNoexceptFunctionIsCaught) {
  EXPECT_ANY_THROW(fault::Run([] { RaiseInNoexcept(); }));
  EXPECT_ANY_THROW(fault::Run([] { RaiseInNoexcept(); }));
}

LONG g_filterCalls;
DWORD g_filterCode;
LONG WINAPI ContinueFilter(EXCEPTION_POINTERS* pointers) {
  ++g_filterCalls;
  g_filterCode = pointers->ExceptionRecord->ExceptionCode;
  return EXCEPTION_CONTINUE_EXECUTION;
}

// On a thread without any handler, not even the test framework's.
TEST(Raise, ReturnsWhenTheFilterContinues) {
  const auto previous = SetUnhandledExceptionFilter(&ContinueFilter);
  g_filterCalls = 0;
  bool returned = false;
  std::thread([&]() {
    RaiseException(kCode, 0, 0, nullptr);
    returned = true;
  }).join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(g_filterCalls, 1);
  EXPECT_EQ(g_filterCode, kCode);
  EXPECT_EQ(SetUnhandledExceptionFilter(previous), &ContinueFilter);
}

}  // namespace
}  // namespace qel::test
