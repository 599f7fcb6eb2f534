// Guards among the SEH frames of others, and faults outside any guard.
#include <gtest/gtest.h>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/support/child_process.h"

namespace qel::test {
namespace {

struct ForeignFrame {
  void* next;
  EXCEPTION_DISPOSITION(__cdecl* handler)(EXCEPTION_RECORD*, void*, CONTEXT*, void*);
};
int g_firstPasses, g_unwinds;
EXCEPTION_DISPOSITION __cdecl CountPasses(EXCEPTION_RECORD* record, void*, CONTEXT*, void*) {
  ++(record->ExceptionFlags & EXCEPTION_UNWINDING ? g_unwinds : g_firstPasses);
  return ExceptionContinueSearch;
}

OWN_FRAME void FaultBelowForeignFrame(int& destroyed) {
  ForeignFrame frame{reinterpret_cast<void*>(__readfsdword(0)), &CountPasses};
  __writefsdword(0, reinterpret_cast<DWORD>(&frame));
  ReadBadAddress(destroyed);
  __writefsdword(0, reinterpret_cast<DWORD>(frame.next));
}

TEST(ForeignFrame, IsAskedAndUnwoundOnceAndLeavesTheChain) {
  g_firstPasses = g_unwinds = 0;
  const DWORD chain = __readfsdword(0);
  int destroyed = 0;
  EXPECT_ANY_THROW(fault::Run([&] { FaultBelowForeignFrame(destroyed); }));
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(g_firstPasses, 1);
  EXPECT_EQ(g_unwinds, 1);
  EXPECT_EQ(__readfsdword(0), chain);
}

TEST(SystemCalls, HandleTheirOwnFaultsUnderAGuard) {
  EXPECT_NO_THROW(fault::Run([] {
    EXPECT_EQ(lstrlenA(static_cast<const char*>(BadPointer())), 0);
    EXPECT_TRUE(IsBadReadPtr(BadPointer(), 1));
    OutputDebugStringA("text");
  }));
}

// The code of another compiler's C++ exceptions: never a CSE.
TEST(ForeignCppException, IsForCatchAll) {
  const fault::Translator previous = fault::SetTranslator(&fault::ThrowCse);
  int clause = 0;
  try {
    fault::Run([] { RaiseException(0xE06D7363, EXCEPTION_NONCONTINUABLE, 0, nullptr); });
  } catch (const CSE&) {
    clause = 1;
  } catch (...) {
    clause = 2;
  }
  fault::SetTranslator(previous);
  EXPECT_EQ(clause, 2);
}

CHILD_ROLE(FaultOutside) {
  SetErrorMode(SEM_NOGPFAULTERRORBOX);
  int destroyed = 0;
  try {
    fault::Run([&] { ReadBadAddress(destroyed); });
  } catch (...) {
  }
  if (arguments[0] == "continue") {
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS * pointers) __attribute__((stdcall))->LONG {
      pointers->ContextRecord->Eip += 2;  // mov %ecx, (%eax)
      return EXCEPTION_CONTINUE_EXECUTION;
    });
  }
  if (arguments[0] == "execute")
    SetUnhandledExceptionFilter(
        [](EXCEPTION_POINTERS*) __attribute__((stdcall))->LONG { return EXCEPTION_EXECUTE_HANDLER; });
  __asm__ __volatile__("movl %%ecx, (%%eax)" : : "a"(BadPointer()), "c"(1) : "memory");
  return destroyed == 1 ? 7 : 8;
}

TEST(FaultOutsideAnyGuard, IsTheHosts) {
  constexpr int kAccessViolation = static_cast<int>(EXCEPTION_ACCESS_VIOLATION);
  EXPECT_EQ(ChildProcess("FaultOutside", {"none"}).Wait(), kAccessViolation);
  EXPECT_EQ(ChildProcess("FaultOutside", {"execute"}).Wait(), kAccessViolation);
  EXPECT_EQ(ChildProcess("FaultOutside", {"continue"}).Wait(), 7);
}

}  // namespace
}  // namespace qel::test
