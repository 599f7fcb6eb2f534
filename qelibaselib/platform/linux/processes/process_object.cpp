#include "qelibaselib/platform/linux/processes/process_object.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include "qelibaselib/platform/linux/win32/processthreadsapi.h"

namespace qel::layer {
namespace {

constexpr int64_t kPollSliceNs = 5 * kNsPerMs;
constexpr int64_t kLongestPollNs = 1000 * kNsPerSecond;
constexpr DWORD kSignalExitCode = 128;  // plus the signal, as a shell tells it

// Children whose last handle was closed before they ended: the kernel keeps an entry of each until it is collected.
constinit std::mutex g_orphanGate;
std::vector<pid_t>& Orphans() {
  static auto* orphans = new std::vector<pid_t>;
  return *orphans;
}

bool IsCollected(pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; }

void AddOrphan(pid_t child) {
  const std::lock_guard lock(g_orphanGate);
  std::erase_if(Orphans(), IsCollected);
  if (!IsCollected(child)) Orphans().push_back(child);
}

void WaitForEnd(int descriptor, int64_t untilNs) {
  const int64_t now = MonotonicNs();
  const int64_t longest = descriptor >= 0 ? kLongestPollNs : kPollSliceNs;
  const int64_t ns = std::clamp<int64_t>(untilNs == kNever ? longest : untilNs - now, 0, longest);
  const timespec limit = {static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
  pollfd end = {descriptor, POLLIN, 0};
  ppoll(&end, 1, &limit, nullptr);
}

}  // namespace

Process::Process(pid_t child) : Waitable(Kind::kProcess), child_(child) {
  if (child != 0) descriptor_ = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
}

Process::~Process() {
  if (!Collect()) AddOrphan(child_);
  if (descriptor_ >= 0) close(descriptor_);
}

// Whether the child has ended; its exit code is kept then.
bool Process::Collect() {
  const std::lock_guard lock(gate_);
  if (ended_.load() != 0) return true;
  int status = 0;
  const pid_t result = waitpid(child_, &status, WNOHANG);
  if (result == 0) return false;
  // A host that collects every child leaves no code to find.
  if (!killed_ && result == child_)
    exitCode_ = WIFSIGNALED(status) ? kSignalExitCode + WTERMSIG(status) : WEXITSTATUS(status);
  ended_.store(1);
  return true;
}

bool Process::IsReady() { return child_ != 0 && Collect(); }

Taken Process::Wait(int64_t deadlineNs) {
  for (;;) {
    if (IsReady()) return Taken::kYes;
    if (deadlineNs != kNever && MonotonicNs() >= deadlineNs) return Taken::kNo;
    if (child_ == 0)
      SleepOn(ended_, 0, Scope::kProcess, deadlineNs);
    else
      WaitForEnd(descriptor_, deadlineNs);
  }
}

bool Process::Kill(DWORD exitCode) {
  if (child_ == 0) _exit(static_cast<int>(exitCode));
  if (Collect()) return false;
  const std::lock_guard lock(gate_);
  if (ended_.load() != 0) return false;
  killed_ = true;
  exitCode_ = exitCode;
  return kill(child_, SIGKILL) == 0;
}

DWORD Process::ExitCode() {
  if (!IsReady()) return STILL_ACTIVE;
  const std::lock_guard lock(gate_);
  return exitCode_;
}

Process* CurrentProcess() {
  static auto* process = new Process(0);
  return process;
}

}  // namespace qel::layer
