// Signals besides the plain fault: what else ends a process, masks, the host's handlers, cancellation, locks left
// behind.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/platform/fault/reports.h"
#include "test/support/library.h"

// What assert() calls.
extern "C" [[noreturn]] void __assert_fail(const char* text, const char* file, unsigned int line,
                                           const char* function) noexcept;

namespace qel::test {
namespace {

// What an instruction of the processor's own does in a guard and outside.
void ProvokeOverflow() { __asm__ __volatile__("movl $0x7FFFFFFF, %%eax\n\taddl $1, %%eax\n\tinto" : : : "eax", "cc"); }
void ProvokeBounds() {
  const int limits[] = {1, 2};
  __asm__ __volatile__("bound %0, %1" : : "r"(5), "m"(limits));
}
void ProvokeAlignmentCheck() {
  alignas(8) char words[8] = {};
  __asm__ __volatile__(
      "pushfl\n\torl $0x40000, (%%esp)\n\tpopfl\n\tmovl 1(%0), %%eax\n\tpushfl\n\tandl $~0x40000, (%%esp)\n\tpopfl"
      :
      : "r"(words)
      : "eax", "cc", "memory");
}
void Breakpoint() { __asm__ __volatile__("int3"); }
void CallForbidden() {
  sock_filter filter[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, 0},
                          {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_getppid},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_TRAP},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
  sock_fprog program{4, filter};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
  syscall(SYS_getppid);
}
void FailAssertion() { __assert_fail("false", "host.cpp", 1, "main"); }
void ThrowUncaught() {
  std::thread([] { throw std::runtime_error("uncaught"); }).join();
}

struct End {
  void (*provoke)();
  int signal;
  const char* code;
  bool forGuards;
};
const std::map<std::string, End> kEnds = {
    {"into", {&ProvokeOverflow, SIGSEGV, "c0000095", true}},
    {"bound", {&ProvokeBounds, SIGSEGV, "c000008c", true}},
    {"alignment", {&ProvokeAlignmentCheck, SIGBUS, "80000002", true}},
    {"breakpoint", {&Breakpoint, SIGTRAP, "80000003", false}},
    {"forbidden call", {&CallForbidden, SIGSYS, "c000001c", false}},
    {"abort", {&std::abort, SIGABRT, "c0000409", false}},
    {"assertion", {&FailAssertion, SIGABRT, "c0000409", false}},
    {"uncaught exception", {&ThrowUncaught, SIGABRT, "e06d7363", false}},
};

CHILD_ROLE(EndWithFilter) {
  alarm(30);
  LogFolder();
  SetUnhandledExceptionFilter(&WriteReport);
  kEnds.at(arguments[0]).provoke();
  return 1;
}

TEST(EndOfProcess, IsReportedByTheFilterAndBySignalAsBefore) {
  SKIP_UNDER_ASAN();
  for (const auto& [name, end] : kEnds) {
    SCOPED_TRACE(name);
    TakeReports();
    EXPECT_EQ(ChildProcess("EndWithFilter", {name}).Wait(), -end.signal);
    const auto reports = TakeReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(IsWhole(reports[0]));
    EXPECT_NE(reports[0].find(std::string("ExceptionCode    = 0x") + end.code), std::string::npos) << reports[0];
  }
}

TEST(ProcessorTrap, InAGuardIsCaughtWithItsCode) {
  fault::SetTranslator(&fault::ThrowCse);
  for (const auto& [name, end] : kEnds) {
    if (!end.forGuards) continue;
    DWORD code = 0;
    try {
      fault::Run(end.provoke);
    } catch (const CSE& exception) {
      code = exception.record.ExceptionCode;
    }
    EXPECT_EQ(code, std::stoul(end.code, nullptr, 16)) << name;
  }
  fault::SetTranslator(nullptr);
}

sigset_t SetOf(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  return set;
}
bool IsBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

CHILD_ROLE(BlockSignals) {
  alarm(30);
  if (!CatchesFault()) return 1;
  sigset_t all, before;
  sigfillset(&all);
  sigdelset(&all, SIGALRM);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  if (sigismember(&before, SIGSEGV) || !IsBlocked(SIGSEGV) || !IsBlocked(SIGUSR1) || !CatchesFault()) return 2;
  std::thread([] { _exit(IsBlocked(SIGSEGV) && CatchesFault() && !IsBadReadPtr("", 1) ? 42 : 3); }).join();
  return 4;
}

// sigfillset and sigwait: the usual way to leave all signals to one thread.
CHILD_ROLE(WaitForSignals) {
  alarm(30);
  sigset_t all;
  sigfillset(&all);
  sigdelset(&all, SIGALRM);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  if (arguments[0] == "before") raise(SIGSEGV);
  if (arguments[0] == "process") kill(getpid(), SIGSEGV);
  sigset_t pending;
  if (sigpending(&pending) != 0 || (sigismember(&pending, SIGSEGV) == 1) != (arguments[0] != "during")) return 1;
  std::thread waiter([] {
    sigset_t set = SetOf({SIGSEGV, SIGBUS});
    int signal = 0;
    if (!CatchesFault() || sigwait(&set, &signal) != 0 || signal != SIGSEGV || !CatchesFault()) _exit(2);
  });
  if (arguments[0] == "during") {
    usleep(50'000);
    kill(getpid(), SIGSEGV);
  }
  waiter.join();
  return 42;
}

volatile sig_atomic_t g_handled;
bool g_caughtInHandler;
void CatchInHandler(int) {
  g_caughtInHandler = CatchesFault() && IsBlocked(SIGUSR1);
  g_handled = g_handled + 1;
}

CHILD_ROLE(UnblockKeptSignal) {
  struct sigaction action {};
  action.sa_handler = &CatchInHandler;
  sigfillset(&action.sa_mask);
  sigaction(SIGUSR1, &action, nullptr);
  sigaction(SIGSEGV, &action, nullptr);
  struct sigaction told;
  sigaction(SIGUSR1, nullptr, &told);
  if (!sigismember(&told.sa_mask, SIGSEGV)) return 1;
  raise(SIGUSR1);
  if (g_handled != 1 || !g_caughtInHandler) return 2;
  const sigset_t fault = SetOf({SIGSEGV});
  pthread_sigmask(SIG_BLOCK, &fault, nullptr);
  raise(SIGSEGV);
  if (g_handled != 1) return 3;
  pthread_sigmask(SIG_UNBLOCK, &fault, nullptr);
  return g_handled == 2 && !IsBlocked(SIGSEGV) ? 42 : 4;
}

TEST(BlockedSignals, KeepNoGuardFromCatchingAndReachTheHostLater) {
  SKIP_UNDER_ASAN();
  EXPECT_EQ(ChildProcess("BlockSignals").Wait(), 42);
  for (const char* when : {"before", "process", "during"}) EXPECT_EQ(ChildProcess("WaitForSignals", {when}).Wait(), 42);
  EXPECT_EQ(ChildProcess("UnblockKeptSignal").Wait(), 42);
}

// The handler never returns: its signal would stay blocked.
TEST(FaultInHostsHandler, GivesBackTheMaskOfTheGuard) {
  for (const int flags : {0, SA_SIGINFO, SA_ONSTACK}) {
    struct sigaction action {
    }, former;
    action.sa_handler = [](int) { *static_cast<volatile int*>(BadPointer()) = 1; };
    action.sa_flags = flags;
    action.sa_mask = SetOf({SIGUSR2});
    sigaction(SIGUSR1, &action, &former);
    const sigset_t blocked = SetOf({SIGHUP});
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    EXPECT_ANY_THROW(fault::Run([] { raise(SIGUSR1); }));
    EXPECT_TRUE(!IsBlocked(SIGUSR1) && !IsBlocked(SIGUSR2) && IsBlocked(SIGHUP)) << flags;
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    sigaction(SIGUSR1, &former, nullptr);
  }
}

CHILD_ROLE(HoldFile) {
  alarm(60);
  LogFolder();
  static const std::wstring path = Widen(arguments[0]);
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  pthread_t thread;
  pthread_create(
      &thread, nullptr,
      [](void*) -> void* {
        CreateFileX(HOST, path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr, INFINITE, 1);
        return nullptr;
      },
      nullptr);
  usleep(30'000);
  pthread_cancel(thread);
  void* result = nullptr;
  pthread_join(thread, &result);
  VemoLogOutMisc("after the cancellation", HOST);
  CloseHandle(file);
  return result == PTHREAD_CANCELED ? 42 : 1;
}

TEST(Cancellation, PassesAnExportAndLeavesNothingLocked) {
  SKIP_UNDER_ASAN();
  const ScratchFolder folder;
  for (int round = 0; round < 5; ++round) {
    TakeMessages(channel::kMisc);
    EXPECT_EQ(ChildProcess("HoldFile", {(folder.Path() / "held").string()}).Wait(), 42);
    EXPECT_EQ(TakeMessages(channel::kMisc).size(), 1u);
  }
}

// A page of the heap goes away, and comes back while the report waits: the first thread faults while it has the lock of
// the allocator, and both threads need it.
CHILD_ROLE(FaultInAllocator) {
  alarm(60);
  LogFolder();
  FaultInExport();
  constexpr size_t kBlock = 64 * 1024, kPage = 4096;
  char* const blocks[] = {static_cast<char*>(std::malloc(kBlock)), static_cast<char*>(std::malloc(kBlock)),
                          static_cast<char*>(std::malloc(kBlock))};
  std::atomic<bool> isGone{false};
  auto* const page = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(blocks[1]) & ~(kPage - 1));
  bool caught = false;
  std::thread mender([&] {
    while (!isGone) usleep(1000);
    usleep(100'000);
    mprotect(page, kPage, PROT_READ | PROT_WRITE);
    FaultInExport();
  });
  std::free(blocks[1]);
  mprotect(page, kPage, PROT_NONE);
  isGone = true;
  try {
    fault::Run([&] {
      void* volatile memory = std::malloc(2 * kBlock - 64);
      std::free(memory);
    });
  } catch (...) {
    caught = true;
  }
  const bool failed = FaultInExport();
  mender.join();
  return caught && failed ? 42 : 1;
}

TEST(FaultInAllocator, LeavesNoThreadWaitingForItsLock) {
  SKIP_UNDER_ASAN();
  TakeReports();
  EXPECT_EQ(ChildProcess("FaultInAllocator").Wait(), 42);
  EXPECT_EQ(TakeReports().size(), 3u);
}

}  // namespace
}  // namespace qel::test
