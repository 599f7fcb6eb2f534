#include "qelibaselib/platform/linux/files/sharing_gate.h"

#include <time.h>

#include <cerrno>

namespace qel::layer {
namespace {

bool LockForAWhile(pthread_mutex_t& mutex) {
  constexpr long kLongestWaitNs = 100'000'000, kSecondNs = 1'000'000'000;
  int error = pthread_mutex_trylock(&mutex);
  if (error == EBUSY) {
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += kLongestWaitNs;
    until.tv_sec += until.tv_nsec / kSecondNs;
    until.tv_nsec %= kSecondNs;
    error = pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &until);
  }
  if (error == EOWNERDEAD)
    error = pthread_mutex_consistent(&mutex);  // what the owner did was one system call at a time
  return error == 0;
}

}  // namespace

SharingGate::SharingGate(FileKey file) : mutex_(OpenSharingBoard().GateOf(file)), held_(LockForAWhile(mutex_)) {}

SharingGate::~SharingGate() {
  if (held_) pthread_mutex_unlock(&mutex_);
}

}  // namespace qel::layer
