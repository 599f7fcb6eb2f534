/// @file
/// Mutexes: robust, nested by their thread, given up when it ends.
///
/// Behind a mutex is a robust mutex of the C library in memory that all its processes share, so the kernel itself tells
/// the next owner when a process died as the owner. The end of a thread alone it does not tell; a thread that ends
/// therefore marks its mutexes as orphaned and releases them. How often the owner has taken a mutex is counted in this
/// process, since only one thread of one process can own it.
#pragma once
#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

class MutexObject final : public StoredObject {
 public:
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept;
  static void operator delete(void* block) noexcept;
  explicit MutexObject(StorageReference storage) : StoredObject(Kind::kMutex, std::move(storage)) {}
  Taken TryTake() override;
  bool IsReady() override;
  void PutBack(Taken taken) override;
  bool ChangesFromOutside() override { return true; }
  Taken Wait(int64_t deadlineNs) override;
  /// Notes that the calling thread owns the mutex from its making on.
  void RecordInitialOwner();
  /// False when the calling thread does not own it.
  bool ReleaseOnce();

 private:
  Taken RecordLock(int lockResult);
};

/// Gives up every mutex that the ending thread owns; the next owner is told.
void AbandonMutexes();

/// In a forked child: they are its parent's.
void ForgetMutexes();

}  // namespace qel::layer
