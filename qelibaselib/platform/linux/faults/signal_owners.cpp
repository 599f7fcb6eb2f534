// Who has the signals of faults: we do, from load on. Whoever had them before or asks for them later gets what we do
// not take, as if we were not there.
//
// A program that is linked with this module calls the sigaction and signal below. For our signals they keep what the
// host wants instead of installing it, so that a handler set after our load neither displaces us nor sees us. A host
// that loads the module later reaches the C library's own; against that, the signals are claimed again now and then.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"

extern "C" int __sigaction(int signal, const struct sigaction* action, struct sigaction* former) noexcept;

namespace qel::layer {
namespace {

// Who had a signal when we came, and who should have it now.
struct Host {
  struct sigaction original;
  struct sigaction current;
  bool known;
};
constinit Host g_hosts[NSIG] = {};
// Of the other signals: the signals of faults that the host wants blocked while its handler runs. They are not, so that
// a guard in the handler catches faults.
constinit uint32_t g_wishedMasks[NSIG] = {};
constinit pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

class OwnersLock {
 public:
  OwnersLock() { pthread_mutex_lock(&g_mutex); }
  OwnersLock(const OwnersLock&) = delete;
  OwnersLock& operator=(const OwnersLock&) = delete;
  ~OwnersLock() { pthread_mutex_unlock(&g_mutex); }
};

bool IsOurs(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) && action.sa_sigaction == &fault_signal_entry;
}

bool IsFunction(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) || (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

void Claim(int signal) {
  Host& host = g_hosts[signal];
  struct sigaction present;
  if (__sigaction(signal, nullptr, &present) != 0 || IsOurs(present)) return;
  if (!host.known) host.original = present;
  host.known = true;
  host.current = present;
  struct sigaction ours {};
  ours.sa_sigaction = &fault_signal_entry;
  ours.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  __sigaction(signal, &ours, nullptr);
}

void SetDefault(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  __sigaction(signal, &action, nullptr);
}

// As the system does it: an instruction that faults repeats and ends the process, everything else is sent once more.
void EndByDefault(int signal, const siginfo_t& info, const ucontext_t& machine) {
  SetDefault(signal);
  if (info.si_code <= 0 || IsPastInstruction(signal, machine)) syscall(SYS_tgkill, getpid(), gettid(), signal);
}

// Calls the host's handler with what its action wants blocked; the signals of faults only seem so, see
// signal_masks.cpp.
void CallHandler(const struct sigaction& action, int signal, siginfo_t* info, void* machine) {
  FaultThread& thread = t_faultThread;
  const uintptr_t formerFrame = thread.handlerFrame;
  const uint32_t formerMask = thread.handlerMask;
  sigset_t blocked = action.sa_mask, before;
  if (!(action.sa_flags & SA_NODEFER)) sigaddset(&blocked, signal);
  thread.handlerMask = RemoveFaultSignals(blocked) | (IsInHostHandler(thread, formerFrame) ? formerMask : 0);
  thread.handlerFrame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  ChangeKernelMask(SIG_BLOCK, &blocked, &before);
  if (action.sa_flags & SA_SIGINFO) {
    action.sa_sigaction(signal, info, machine);
  } else {
    action.sa_handler(signal);
  }
  ChangeKernelMask(SIG_SETMASK, &before, nullptr);
  thread.handlerFrame = formerFrame;
  thread.handlerMask = formerMask;
}

// Whether the host's handler faults itself while the signal is blocked: the kernel would end the process.
bool IsBlockedByHandler(int signal, const ucontext_t& machine) {
  const FaultThread& thread = t_faultThread;
  return IsInHostHandler(thread, static_cast<uintptr_t>(machine.uc_mcontext.gregs[REG_ESP])) &&
         (thread.handlerMask & (1u << signal));
}

// Does what the system would have done with `action` in place.
void Perform(struct sigaction& action, int signal, siginfo_t* info, void* context) {
  const auto& machine = *static_cast<const ucontext_t*>(context);
  if (action.sa_handler == SIG_IGN && !IsFunction(action) && info->si_code <= 0) return;
  if (!IsFunction(action) || (info->si_code > 0 && IsBlockedByHandler(signal, machine)))
    return EndByDefault(signal, *info, machine);
  const struct sigaction called = action;
  if (called.sa_flags & SA_RESETHAND) {
    action = {};
    action.sa_handler = SIG_DFL;
  }
  CallHandler(called, signal, info, context);
}

// Another signal's action: its mask in the kernel is without the signals of faults.
int ChangeOther(int signal, const struct sigaction* action, struct sigaction* former) {
  const bool known = signal > 0 && signal < NSIG;
  const uint32_t wishedBefore = known ? g_wishedMasks[signal] : 0;
  struct sigaction asked;
  if (action) asked = *action;
  const uint32_t wished = action && IsFunction(asked) ? RemoveFaultSignals(asked.sa_mask) : 0;
  const int result = __sigaction(signal, action ? &asked : nullptr, former);
  if (result != 0 || !known) return result;
  if (action) g_wishedMasks[signal] = wished;
  if (former) AddFaultSignals(former->sa_mask, wishedBefore);
  return 0;
}

}  // namespace

void PassToHost(int signal, siginfo_t* info, void* machine) { Perform(g_hosts[signal].current, signal, info, machine); }
void PassToOriginal(int signal, siginfo_t* info, void* machine) {
  Perform(g_hosts[signal].original, signal, info, machine);
}

const ForkedPart kFaultSignalsAtFork = {[] { pthread_mutex_lock(&g_mutex); },
                                        [](bool) { pthread_mutex_unlock(&g_mutex); }};

void ClaimSignals() {
  const OwnersLock lock;
  for (const int signal : kClaimedSignals) Claim(signal);
}

void UnblockSignals() {
  sigset_t signals, before;
  sigemptyset(&signals);
  for (const int signal : kFaultSignals) sigaddset(&signals, signal);
  if (ChangeKernelMask(SIG_UNBLOCK, &signals, &before) == 0) t_faultThread.wishedMask |= RemoveFaultSignals(before);
}

}  // namespace qel::layer

extern "C" QEL_LAYER int sigaction(int signal, const struct sigaction* action, struct sigaction* former) noexcept {
  using namespace qel::layer;
  if (signal == SIGXFSZ) return ChangeFileSizeAction(action, former);
  if (std::ranges::find(kClaimedSignals, signal) == std::end(kClaimedSignals) || !g_hosts[signal].known)
    return ChangeOther(signal, action, former);
  const OwnersLock lock;
  Claim(signal);
  Host& host = g_hosts[signal];
  const struct sigaction previous = host.current;
  if (action) host.current = *action;
  if (former) *former = previous;
  return 0;
}

extern "C" QEL_LAYER sighandler_t signal(int signal, sighandler_t handler) noexcept {
  struct sigaction action {
  }, former{};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, signal);
  return sigaction(signal, &action, &former) == 0 ? former.sa_handler : SIG_ERR;
}
