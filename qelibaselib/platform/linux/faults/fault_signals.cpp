// Who has the signals of faults: we do, from load on, and whoever had them before or asks for them later gets what we
// do not take, as if we were not there.
//
// A program that is linked with this module calls the sigaction and signal below. They keep what the host wants for the
// four signals instead of installing it, so that a handler set after our load neither displaces us nor sees us. A host
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

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// Who had a signal when we came, and who should have it now.
struct Host {
  struct sigaction original;
  struct sigaction current;
  bool known;
};
constinit Host g_hosts[NSIG] = {};
constinit pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

class Lock {
 public:
  Lock() { pthread_mutex_lock(&g_mutex); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() { pthread_mutex_unlock(&g_mutex); }
};

bool IsOurs(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) && action.sa_sigaction == &OnFaultSignal;
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
  ours.sa_sigaction = &OnFaultSignal;
  ours.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  __sigaction(signal, &ours, nullptr);
}

void SetDefault(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  __sigaction(signal, &action, nullptr);
}

// Does what the system would have done with `action` in place.
void Do(struct sigaction& action, int signal, siginfo_t* info, void* machine) {
  const bool ofInstruction = info->si_code > 0;
  if (!IsFunction(action)) {
    if (action.sa_handler == SIG_IGN && !ofInstruction) return;
    SetDefault(signal);  // the instruction repeats and ends the process as it should
    if (!ofInstruction) syscall(SYS_tgkill, getpid(), gettid(), signal);
    return;
  }
  const struct sigaction called = action;
  if (called.sa_flags & SA_RESETHAND) {
    action = {};
    action.sa_handler = SIG_DFL;
  }
  sigset_t blocked = called.sa_mask, before;
  if (!(called.sa_flags & SA_NODEFER)) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  if (called.sa_flags & SA_SIGINFO) {
    called.sa_sigaction(signal, info, machine);
  } else {
    called.sa_handler(signal);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

void PassToHost(int signal, siginfo_t* info, void* machine) { Do(g_hosts[signal].current, signal, info, machine); }
void PassToOriginal(int signal, siginfo_t* info, void* machine) { Do(g_hosts[signal].original, signal, info, machine); }

const ForkedPart kFaultSignalsAtFork = {[] { pthread_mutex_lock(&g_mutex); },
                                        [](bool) { pthread_mutex_unlock(&g_mutex); }};

void ClaimSignals() {
  const Lock lock;
  for (int signal : kSignals) Claim(signal);
}

void UnblockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : kSignals) sigaddset(&signals, signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace qel::layer

extern "C" QEL_LAYER int sigaction(int signal, const struct sigaction* action, struct sigaction* former) noexcept {
  using namespace qel::layer;
  if (signal == SIGXFSZ) return ChangeFileSizeAction(action, former);
  if (std::find(std::begin(kSignals), std::end(kSignals), signal) == std::end(kSignals) || !g_hosts[signal].known)
    return __sigaction(signal, action, former);
  const Lock lock;
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
