// Faults outside any guard: the host sees them as if the library were not there, and its handlers do not displace ours.
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/support/library.h"

extern "C" int __sigaction(int signal, const struct sigaction* action, struct sigaction* former) noexcept;

namespace qel::test {
namespace {

// The end of a process by an access that nobody takes. The sanitizer has a handler of its own in place of the default.
#ifdef QEL_SANITIZE
constexpr int kEndByAccess = 1;
#else
constexpr int kEndByAccess = -SIGSEGV;
#endif

OWN_FRAME void Fault() { *static_cast<volatile int*>(BadPointer()) = 1; }

sigjmp_buf g_back;
std::atomic<void*> g_address;
std::atomic<int> g_calls;
void JumpBack(int, siginfo_t* info, void*) {
  g_address = info->si_addr;
  ++g_calls;
  siglongjmp(g_back, 1);
}
struct sigaction Action(void (*handler)(int, siginfo_t*, void*), int flags = 0) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  sigemptyset(&action.sa_mask);
  return action;
}

CHILD_ROLE(FaultWithoutHandler) {
  if (!CatchesFault()) return 1;
  if (arguments[0] == "ud2") __asm__ __volatile__("ud2");
  if (arguments[0] == "kill") kill(getpid(), SIGILL);
  if (arguments[0] == "raise") std::thread([] { RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr); }).join();
  Fault();
  return 2;
}
TEST(HostWithoutHandler, DiesOfTheSignalOfItsFault) {
  for (const auto& [how, end] :
       {std::pair{"read", kEndByAccess}, {"raise", kEndByAccess}, {"ud2", -SIGILL}, {"kill", -SIGILL}})
    EXPECT_EQ(ChildProcess("FaultWithoutHandler", {how}).Wait(), end) << how;
}

CHILD_ROLE(FaultWithHandler) {
  if (arguments[0] == "late" && !CatchesFault()) return 1;
  struct sigaction action = Action(&JumpBack), former;
  sigaction(SIGSEGV, &action, nullptr);
  if (sigaction(SIGSEGV, nullptr, &former) != 0 || former.sa_sigaction != &JumpBack) return 2;
  for (int round = 1; round <= 2; ++round) {
    if (!CatchesFault() || g_calls != round - 1) return 3;
    if (sigsetjmp(g_back, 1) == 0) Fault();
    if (g_calls != round || g_address != reinterpret_cast<void*>(kBadAddress)) return 4;
  }
  if (signal(SIGSEGV, SIG_DFL) == SIG_ERR || !CatchesFault()) return 5;
  Fault();
  return 6;
}

TEST(HostWithHandler, GetsItsFaultsAndWeGetOurs) {
  for (const char* when : {"early", "late"}) EXPECT_EQ(ChildProcess("FaultWithHandler", {when}).Wait(), -SIGSEGV);
}

// What a host does that did not link the layer: the C library's own call displaces us, and keeps us as the former
// handler, to which it passes what it does not want.
struct sigaction g_former;
void PassOn(int signal, siginfo_t* info, void* context) {
  if (++g_calls > 3) _exit(9);  // handlers that call each other for ever
  g_former.sa_sigaction(signal, info, context);
}

CHILD_ROLE(DisplaceHandler) {
  if (!CatchesFault()) return 1;
  struct sigaction action = Action(&PassOn);
  __sigaction(SIGSEGV, &action, &g_former);
  bool caught = false;
  std::thread([&] { caught = CatchesFault(); }).join();  // a thread's first guard claims the signals again
  if (!caught || g_calls != 0) return 2;
  Fault();
  return 3;
}

TEST(HostWithHandler, ThatPassesOnToUsEndsInItsDefault) {
  EXPECT_EQ(ChildProcess("DisplaceHandler").Wait(), kEndByAccess);
}

// The handler runs once, with its own mask, and then the default holds.
CHILD_ROLE(ResetHandler) {
  struct sigaction action = Action(
      [](int, siginfo_t*, void*) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        if (!sigismember(&mask, SIGUSR1) || !sigismember(&mask, SIGSEGV) || ++g_calls != 1) _exit(1);
      },
      SA_RESETHAND);
  sigaddset(&action.sa_mask, SIGUSR1);
  sigaction(SIGSEGV, &action, nullptr);
  Fault();  // repeats after the handler has returned
  return 2;
}

TEST(HostWithHandler, FlagsAndMaskOfItsActionHold) { EXPECT_EQ(ChildProcess("ResetHandler").Wait(), -SIGSEGV); }

// The filter of Windows' kind, for hardware faults.
LONG WINAPI SkipWrite(EXCEPTION_POINTERS* pointers) {
  if (pointers->ExceptionRecord->ExceptionInformation[1] != kBadAddress) return EXCEPTION_CONTINUE_SEARCH;
  pointers->ContextRecord->Eip += 2;  // mov %ecx, (%eax)
  return EXCEPTION_CONTINUE_EXECUTION;
}
CHILD_ROLE(FaultWithFilter) {
  if (arguments[0] == "search") SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return 0; });
  if (arguments[0] == "execute") SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return 1; });
  if (arguments[0] == "continue") SetUnhandledExceptionFilter(&SkipWrite);
  if (!CatchesFault()) return 3;
  __asm__ __volatile__("movl %%ecx, (%%eax)" : : "a"(BadPointer()), "c"(1) : "memory");
  return 7;
}

TEST(HostWithFilter, EveryAnswerHolds) {
  for (const auto& [answer, end] : {std::pair{"search", kEndByAccess}, {"execute", 1}, {"continue", 7}})
    EXPECT_EQ(ChildProcess("FaultWithFilter", {answer}).Wait(), end) << answer;
}

TEST(Handler, KeepsErrno) {
  errno = 1234;
  EXPECT_TRUE(IsBadReadPtr(BadPointer(), 1));
  EXPECT_EQ(errno, 1234);
}

// A guard that runs when the thread's own storage has been torn down already.
TEST(Handler, GuardInAKeyDestructor) {
  static std::atomic<bool> caught;
  caught = false;
  pthread_key_t key;
  ASSERT_EQ(pthread_key_create(&key, [](void*) { caught = CatchesFault(); }), 0);
  std::thread([key] {
    CatchesFault();
    pthread_setspecific(key, &caught);
  }).join();
  pthread_key_delete(key);
  EXPECT_TRUE(caught);
}

}  // namespace
}  // namespace qel::test
