/// @file
/// The lock of a table that a report needs.
///
/// Problem: the thread that holds it may never go on. It was stopped, or waits in a fork handler of the host for the
/// very thread that reports.
///
/// Idea: a report does not wait longer than a second, which is thousands of times as long as any table is held. Where
/// it does not get the lock it does without the table. Everybody else waits: a process that was stopped for a while and
/// goes on must not lose what the table is for.
#pragma once
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "qelibaselib/platform/linux/base/report_depth.h"

namespace qel::layer {

enum class Patience {
  kOfReports,  ///< without limit, except for a thread that reports
  kLimited,    ///< a second at most, for a table that is easily done without
};

class PatientMutex {
 public:
  /// False for a thread that has it already, and when it was not had in time: by a report or, with kLimited, by
  /// anybody. After that no such thread waits until it was had again.
  bool Lock(Patience patience = Patience::kOfReports) {
    int error = pthread_mutex_trylock(&mutex_);
    if (error != 0) error = Wait(patience == Patience::kLimited || t_reportDepth != 0);
    if (error == 0 && isStuck_.load(std::memory_order_relaxed)) isStuck_.store(false, std::memory_order_relaxed);
    return error == 0;
  }
  void Unlock() { pthread_mutex_unlock(&mutex_); }

  void LockBeforeFork() { pthread_mutex_lock(&mutex_); }
  /// The C library refuses to unlock it in the child, whose thread it knows by another number, so there the mutex is
  /// made anew. Whoever watches the locks has seen it unlocked in both processes.
  void UnlockAfterFork(bool inChild) {
    Unlock();
    if (inChild) mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  }

 private:
  int Wait(bool isLimited) {
    if (!isLimited) return pthread_mutex_lock(&mutex_);
    if (isStuck_.load(std::memory_order_relaxed)) return EBUSY;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += 1;
    const int error = pthread_mutex_clocklock(&mutex_, CLOCK_MONOTONIC, &end);
    if (error == ETIMEDOUT) isStuck_.store(true, std::memory_order_relaxed);
    return error;
  }
  pthread_mutex_t mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  std::atomic<bool> isStuck_{false};
};

class PatientLock {
 public:
  explicit PatientLock(PatientMutex& mutex, Patience patience = Patience::kOfReports)
      : mutex_(mutex), owns_(mutex.Lock(patience)) {}
  PatientLock(const PatientLock&) = delete;
  PatientLock& operator=(const PatientLock&) = delete;
  ~PatientLock() {
    if (owns_) mutex_.Unlock();
  }
  explicit operator bool() const { return owns_; }

 private:
  PatientMutex& mutex_;
  const bool owns_;
};

}  // namespace qel::layer
