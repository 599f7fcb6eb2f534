#include "qelibaselib/platform/linux/base/file_size_limit.h"

#include <sys/syscall.h>
#include <unistd.h>

extern "C" int __sigaction(int signal, const struct sigaction* action, struct sigaction* former) noexcept;

namespace qel::layer {
namespace {

bool (*g_isInGuard)() = nullptr;

struct sigaction DefaultAction() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  return action;
}

void OnFileSizeLimit(int signal) {
  if (t_fileGrowths > 0 || (g_isInGuard && g_isInGuard())) return;
  const struct sigaction action = DefaultAction();
  __sigaction(signal, &action, nullptr);
  syscall(SYS_tgkill, getpid(), gettid(), signal);  // takes effect when the handler returns
}

bool IsHandler(const struct sigaction& action, void (*handler)(int)) {
  return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == handler;
}

struct sigaction OwnAction() {
  struct sigaction action = {};
  action.sa_handler = &OnFileSizeLimit;
  action.sa_flags = SA_RESTART;
  return action;
}

}  // namespace

void GuardFileSizeLimit(bool (*isInGuard)()) {
  g_isInGuard = isInGuard;
  const struct sigaction action = DefaultAction();
  struct sigaction present;
  if (__sigaction(SIGXFSZ, nullptr, &present) == 0 && IsHandler(present, SIG_DFL))
    ChangeFileSizeAction(&action, nullptr);
}

int ChangeFileSizeAction(const struct sigaction* action, struct sigaction* former) {
  const struct sigaction own = OwnAction();
  struct sigaction previous;
  const struct sigaction* const installed = action && IsHandler(*action, SIG_DFL) ? &own : action;
  if (__sigaction(SIGXFSZ, installed, &previous) != 0) return -1;
  if (former) *former = IsHandler(previous, &OnFileSizeLimit) ? DefaultAction() : previous;
  return 0;
}

}  // namespace qel::layer
