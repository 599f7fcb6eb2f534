// Masks of signals that never block those of faults.
//
// Problem: the kernel ends a process whose thread faults while the signal of the fault is blocked, whoever would handle
// it. Hosts block all signals (sigfillset) in threads that leave signals to one other thread.
//
// Idea: the functions below stand before those of the C library. The four signals of faults never get into the kernel's
// mask; that the host wished to block them is noted for each thread, and told when it asks. One of them that is sent
// (kill, raise) while it is blocked so is kept for the host, until a thread waits for it or unblocks it.
//
// What is not seen: system calls that a host makes itself, a mask that siglongjmp restores, and the masks that ppoll,
// pselect and epoll_pwait bring along. The next first guard of a thread unblocks the four.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {
namespace {

constexpr size_t kKernelMaskBytes = 8;

enum class KeptState { kNone, kChanging, kThere };

// A sent signal that is blocked for the host. As with the kernel's own, a second one of the same kind is dropped.
struct KeptSignal {
  std::atomic<KeptState> state;
  siginfo_t info;
  std::atomic<pid_t> waiter;  // a thread that waits for it; 0 when there is none
};
constinit KeptSignal g_kept[NSIG] = {};

constexpr uint32_t Bit(int signal) { return 1u << signal; }

// What the host believes to be blocked of the four.
uint32_t BelievedMask() {
  const FaultThread& thread = t_faultThread;
  const bool inHandler = IsInHostHandler(thread, reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
  return thread.wishedMask | (inHandler ? thread.handlerMask : 0);
}

bool TakeKept(int signal, siginfo_t& info) {
  KeptSignal& kept = g_kept[signal];
  KeptState there = KeptState::kThere;
  if (!kept.state.compare_exchange_strong(there, KeptState::kChanging)) return false;
  info = kept.info;
  kept.state.store(KeptState::kNone);
  return true;
}

// Sends what was kept and is wanted now to this thread.
void SendKept(uint32_t wanted) {
  siginfo_t info;
  for (const int signal : kFaultSignals)
    if ((wanted & Bit(signal)) && TakeKept(signal, info))
      syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signal, &info);
}

bool IsWay(int how) { return how == SIG_BLOCK || how == SIG_UNBLOCK || how == SIG_SETMASK; }

void Wish(int how, uint32_t bits) {
  uint32_t& wished = t_faultThread.wishedMask;
  const uint32_t before = wished;
  wished = how == SIG_BLOCK ? before | bits : how == SIG_UNBLOCK ? before & ~bits : bits;
  if (before & ~wished) SendKept(before & ~wished);
}

int ChangeMask(int how, const sigset_t* set, sigset_t* former) {
  if (set && !IsWay(how)) return EINVAL;
  const uint32_t believed = BelievedMask();
  sigset_t asked;
  uint32_t bits = 0;
  if (set) {
    asked = *set;
    bits = RemoveFaultSignals(asked);
  }
  const int error = ChangeKernelMask(how, set ? &asked : nullptr, former);
  if (error != 0) return error;
  if (former) AddFaultSignals(*former, believed);
  if (set) Wish(how, bits);
  return 0;
}

template <class Function>
Function* FindNext(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// While it lives, those of the four that a thread waits for are blocked in the kernel, as the waiting calls demand, and
// signals that arrive at other threads are sent on to this one.
class WaitingScope {
 public:
  explicit WaitingScope(const sigset_t& awaited) {
    sigset_t rest = awaited;
    bits_ = RemoveFaultSignals(rest) & BelievedMask();
    Change(SIG_BLOCK, gettid());
  }
  WaitingScope(const WaitingScope&) = delete;
  WaitingScope& operator=(const WaitingScope&) = delete;
  ~WaitingScope() { Change(SIG_UNBLOCK, 0); }

  // Returns the signal, 0 when none of those awaited was kept.
  int TakeKeptOne(siginfo_t& info) const {
    for (const int signal : kFaultSignals)
      if ((bits_ & Bit(signal)) && TakeKept(signal, info)) return signal;
    return 0;
  }

 private:
  void Change(int how, pid_t waiter) const {
    if (bits_ == 0) return;
    sigset_t set;
    sigemptyset(&set);
    AddFaultSignals(set, bits_);
    ChangeKernelMask(how, &set, nullptr);
    for (const int signal : kFaultSignals)
      if (bits_ & Bit(signal)) g_kept[signal].waiter.store(waiter);
  }
  uint32_t bits_;
};

int WaitForSignal(const sigset_t* set, siginfo_t* info, const void* timeout, const char* name) {
  using TimedWait = int(const sigset_t*, siginfo_t*, const void*);
  siginfo_t kept{};
  const WaitingScope scope(*set);
  int signal = scope.TakeKeptOne(kept);
  if (signal == 0) {
    signal = FindNext<TimedWait>(name)(set, info, timeout);
    if (signal < 0 || !IsFaultSignal(signal) || !TakeKept(signal, kept)) return signal;
  }
  if (info) *info = kept;
  return signal;
}

}  // namespace

int ChangeKernelMask(int how, const sigset_t* set, sigset_t* former) {
  sigset_t asked;
  if (set) {
    asked = *set;
    // Two signals are the C library's own.
    constexpr uint64_t kOfLibrary = uint64_t{3} << 31;
    uint64_t words;
    std::memcpy(&words, &asked, sizeof words);
    words &= ~kOfLibrary;
    std::memcpy(&asked, &words, sizeof words);
  }
  if (former) sigemptyset(former);
  const int savedErrno = errno;
  const long result = syscall(SYS_rt_sigprocmask, how, set ? &asked : nullptr, former, kKernelMaskBytes);
  const int error = result == 0 ? 0 : errno;
  errno = savedErrno;
  return error;
}

uint32_t RemoveFaultSignals(sigset_t& set) {
  uint32_t bits = 0;
  for (const int signal : kFaultSignals) {
    if (sigismember(&set, signal) == 1) bits |= Bit(signal);
    sigdelset(&set, signal);
  }
  return bits;
}

void AddFaultSignals(sigset_t& set, uint32_t bits) {
  for (const int signal : kFaultSignals)
    if (bits & Bit(signal)) sigaddset(&set, signal);
}

// After a siglongjmp out of the handler its frame is a place above the stack pointer no more, or on another stack.
bool IsInHostHandler(const FaultThread& thread, uintptr_t esp) {
  constexpr uintptr_t kHandlerBytes = 256 * 1024;
  return thread.handlerFrame != 0 && esp < thread.handlerFrame && thread.handlerFrame - esp < kHandlerBytes;
}

bool KeepSentSignal(int signal, const siginfo_t& info) {
  if (!IsFaultSignal(signal) || !(BelievedMask() & Bit(signal))) return false;
  KeptSignal& kept = g_kept[signal];
  KeptState none = KeptState::kNone;
  if (kept.state.compare_exchange_strong(none, KeptState::kChanging)) {
    kept.info = info;
    kept.state.store(KeptState::kThere);
  }
  // The waiter takes what was kept in place of what wakes it: the kernel lets no thread send another one what looks as
  // if a process had sent it.
  if (const pid_t waiter = kept.waiter.load(); waiter != 0) syscall(SYS_tgkill, getpid(), waiter, signal);
  return true;
}

}  // namespace qel::layer

using namespace qel::layer;

extern "C" {

QEL_LAYER int pthread_sigmask(int how, const sigset_t* set, sigset_t* former) noexcept {
  return ChangeMask(how, set, former);
}

QEL_LAYER int sigprocmask(int how, const sigset_t* set, sigset_t* former) noexcept {
  const int error = ChangeMask(how, set, former);
  if (error != 0) errno = error;
  return error == 0 ? 0 : -1;
}

QEL_LAYER int sigpending(sigset_t* set) noexcept {
  if (syscall(SYS_rt_sigpending, set, kKernelMaskBytes) != 0) return -1;
  for (const int signal : kFaultSignals)
    if (g_kept[signal].state.load() != KeptState::kNone) sigaddset(set, signal);
  return 0;
}

QEL_LAYER int sigsuspend(const sigset_t* mask) {
  sigset_t kernels = *mask;
  const uint32_t wished = RemoveFaultSignals(kernels);
  const uint32_t before = t_faultThread.wishedMask;
  t_faultThread.wishedMask = wished;
  SendKept(before & ~wished);
  const int result = FindNext<int(const sigset_t*)>("sigsuspend")(&kernels);
  t_faultThread.wishedMask = before;
  return result;
}

QEL_LAYER int sigwaitinfo(const sigset_t* set, siginfo_t* info) {
  return WaitForSignal(set, info, nullptr, "sigtimedwait");
}

// The two sizes of time.
QEL_LAYER int qel_sigtimedwait(const sigset_t* set, siginfo_t* info, const void* timeout) __asm__("sigtimedwait");
int qel_sigtimedwait(const sigset_t* set, siginfo_t* info, const void* timeout) {
  return WaitForSignal(set, info, timeout, "sigtimedwait");
}
QEL_LAYER int qel_sigtimedwait64(const sigset_t* set, siginfo_t* info, const void* timeout) __asm__("__sigtimedwait64");
int qel_sigtimedwait64(const sigset_t* set, siginfo_t* info, const void* timeout) {
  return WaitForSignal(set, info, timeout, "__sigtimedwait64");
}

QEL_LAYER int sigwait(const sigset_t* set, int* signal) {
  int result;
  do {
    result = WaitForSignal(set, nullptr, nullptr, "sigtimedwait");
  } while (result < 0 && errno == EINTR);
  if (result < 0) return errno;
  *signal = result;
  return 0;
}
}
