#include "qelibaselib/platform/linux/processes/process_object.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <new>
#include <vector>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/never_destroyed.h"
#include "qelibaselib/platform/linux/handles/pseudo_handle.h"

namespace qel::layer {
namespace {

constexpr int64_t kPollSliceNs = 5 * kNsPerMs;
constexpr int64_t kLongestPollNs = 1000 * kNsPerSecond;
constexpr DWORD kSignalExitCode = 128;  // plus the signal, as a shell tells it

constinit std::mutex g_childrenGate;

// Children whose last handle was closed before they ended. Under the gate.
std::vector<pid_t>& Orphans() {
  static NeverDestroyed<std::vector<pid_t>> orphans;
  return *orphans;
}

bool IsCollected(pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; }

void AddOrphan(pid_t child) try {
  std::erase_if(Orphans(), IsCollected);
  if (!IsCollected(child)) Orphans().push_back(child);
} catch (const std::bad_alloc&) {
  // The kernel keeps the child's entry until this process ends.
}

// A descriptor that becomes readable with the end of the child, for the length of one wait; -1 where the kernel has
// none. Not kept: the host may close it and put something else in its place.
int OpenEndOf(pid_t child) { return static_cast<int>(syscall(SYS_pidfd_open, child, 0)); }

void SleepUntilEnd(const Descriptor& end, int64_t untilNs) {
  const int64_t longest = end.get() >= 0 ? kLongestPollNs : kPollSliceNs;
  const int64_t ns = std::clamp<int64_t>(untilNs == kNever ? longest : untilNs - MonotonicNs(), 0, longest);
  const timespec limit = {static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
  pollfd ended = {end.get(), POLLIN, 0};
  ppoll(&ended, 1, &limit, nullptr);
}

}  // namespace

const ForkedPart kChildrenAtFork = {[] { g_childrenGate.lock(); },
                                    [](bool inChild) {
                                      if (inChild) Orphans().clear();
                                      g_childrenGate.unlock();
                                    }};

ProcessObject::~ProcessObject() {
  const std::lock_guard lock(g_childrenGate);
  if (!CollectIfEnded()) AddOrphan(child_);
}

// Whether the child has ended; its exit code is kept then. Under the gate.
bool ProcessObject::CollectIfEnded() {
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

bool ProcessObject::IsReady() {
  if (child_ == 0) return false;
  const std::lock_guard lock(g_childrenGate);
  return CollectIfEnded();
}

Taken ProcessObject::Wait(int64_t deadlineNs) {
  const Descriptor end(child_ == 0 ? -1 : OpenEndOf(child_));
  for (;;) {
    if (IsReady()) return Taken::kYes;
    if (deadlineNs != kNever && MonotonicNs() >= deadlineNs) return Taken::kNo;
    if (child_ == 0)
      SleepOn(ended_, 0, Scope::kProcess, deadlineNs);
    else
      SleepUntilEnd(end, deadlineNs);
  }
}

// The host may collect the child between our look and the signal, and the number be another process's by then: the
// signal goes through a descriptor that was opened while the child was there.
bool ProcessObject::Kill(DWORD exitCode) {
  if (child_ == 0) _exit(static_cast<int>(exitCode));
  const std::lock_guard lock(g_childrenGate);
  const Descriptor child(OpenEndOf(child_));
  if (CollectIfEnded()) return false;
  killed_ = true;
  exitCode_ = exitCode;
  if (child.get() >= 0) return syscall(SYS_pidfd_send_signal, child.get(), SIGKILL, nullptr, 0) == 0;
  return kill(child_, SIGKILL) == 0;
}

DWORD ProcessObject::ExitCode() {
  if (!IsReady()) return STILL_ACTIVE;
  const std::lock_guard lock(g_childrenGate);
  return exitCode_;
}

// In memory of its own, made when the layer is loaded: a lock around its making would be one more for a fork.
namespace {
alignas(ProcessObject) constinit std::byte g_currentProcess[sizeof(ProcessObject)] = {};
__attribute__((constructor)) void MakeCurrentProcess() { new (g_currentProcess) ProcessObject(0); }
}  // namespace

Object* CurrentProcessObject() { return CurrentProcess(); }
ProcessObject* CurrentProcess() { return reinterpret_cast<ProcessObject*>(g_currentProcess); }

}  // namespace qel::layer
