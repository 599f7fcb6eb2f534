#include "qelibaselib/platform/linux/objects/robust_mutex.h"

#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/objects/futex.h"

namespace qel::layer {
namespace {

// On a single processor the owner cannot run while somebody spins. Asked at the load of the layer, since a lock around
// the first question would be one more for a fork.
bool g_hasOneProcessor = false;
__attribute__((constructor)) void CountProcessors() { g_hasOneProcessor = sysconf(_SC_NPROCESSORS_ONLN) < 2; }

// About 15 us, as long as a sleep and the waking from it cost: most mutexes are held for less, a log line's for a
// third.
int SpinForLock(pthread_mutex_t& mutex) {
  constexpr int kTries = 30, kPauses = 20;
  int result = EBUSY;
  for (int i = 0; i < kTries && result == EBUSY && !g_hasOneProcessor; ++i) {
    for (int pause = 0; pause < kPauses; ++pause) __builtin_ia32_pause();
    result = pthread_mutex_trylock(&mutex);
  }
  return result;
}

}  // namespace

int LockUntil(pthread_mutex_t& mutex, int64_t deadlineNs) {
  if (const int result = SpinForLock(mutex); result != EBUSY) return result;
  if (deadlineNs == kNever) return pthread_mutex_lock(&mutex);
  const timespec deadline = {static_cast<time_t>(deadlineNs / kNsPerSecond),
                             static_cast<long>(deadlineNs % kNsPerSecond)};
  return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline);
}

void InitialiseMutex(pthread_mutex_t& mutex, bool owned) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (owned) static_cast<void>(pthread_mutex_trylock(&mutex));  // nobody else has seen it yet
}

bool IsLockedByAnyone(pthread_mutex_t& mutex) {
  const int result = pthread_mutex_trylock(&mutex);
  if (result == EBUSY) return true;
  if (result == EOWNERDEAD) pthread_mutex_consistent(&mutex);
  if (result == 0 || result == EOWNERDEAD) pthread_mutex_unlock(&mutex);
  return false;
}

}  // namespace qel::layer
