/// @file
/// Mutexes: robust, nested by their thread, given up when it ends.
#pragma once
#include <pthread.h>

#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

/// Makes a mutex in memory that no thread has locked; `owned` by the calling thread at once.
void InitialiseMutex(pthread_mutex_t& mutex, bool owned);

/// For one that a try did not get: tries for a moment more, then sleeps. Returns what pthread_mutex_clocklock does.
int LockUntil(pthread_mutex_t& mutex, int64_t deadlineNs);

class Mutex final : public StoredObject {
 public:
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept;
  static void operator delete(void* block) noexcept;
  explicit Mutex(StorageReference storage) : StoredObject(Kind::kMutex, std::move(storage)) {}
  Taken TryTake() override;
  bool IsReady() override;
  void PutBack(Taken taken) override;
  bool ChangesFromOutside() override { return true; }
  Taken Wait(int64_t deadlineNs) override;
  /// Notes that the calling thread owns the mutex from its making on.
  void TookAtCreation();
  /// False when the calling thread does not own it.
  bool Release();

 private:
  Taken Locked(int result);
};

/// Gives up every mutex that the ending thread owns; the next owner is told.
void AbandonMutexes();

/// In a forked child: they are its parent's.
void ForgetMutexes();

}  // namespace qel::layer
