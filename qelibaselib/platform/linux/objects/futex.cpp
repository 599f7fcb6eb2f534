#include "qelibaselib/platform/linux/objects/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <ctime>

namespace qel::layer {
namespace {
// What the kernel takes, whatever the C library's timespec is.
struct KernelTime {
  int64_t seconds, nanoseconds;
};
// The call that takes KernelTime has a number of its own for programs of 32 bits. The plain one has always taken it for
// those of 64.
constexpr long kFutexWithKernelTime = sizeof(void*) == 4 ? 422 : SYS_futex;

int Operation(int operation, Scope scope) { return operation | (scope == Scope::kShared ? 0 : FUTEX_PRIVATE_FLAG); }
}  // namespace

int64_t MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

int64_t DeadlineNs(DWORD ms) { return ms == INFINITE ? kNever : MonotonicNs() + ms * kNsPerMs; }

void SleepOn(Word& word, uint32_t seen, Scope scope, int64_t untilNs) {
  const KernelTime until = {untilNs / kNsPerSecond, untilNs % kNsPerSecond};
  syscall(kFutexWithKernelTime, &word, Operation(FUTEX_WAIT_BITSET, scope), seen, untilNs == kNever ? nullptr : &until,
          nullptr, FUTEX_BITSET_MATCH_ANY);
}

void WakeAll(Word& word, Scope scope) {
  syscall(SYS_futex, &word, Operation(FUTEX_WAKE, scope), INT_MAX, nullptr, nullptr, 0);
}

}  // namespace qel::layer
