#include "qelibaselib/platform/linux/objects/mutex.h"

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/block_reserve.h"
#include "qelibaselib/platform/linux/objects/robust_mutex.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"

namespace qel::layer {
namespace {

using Ownership = Storage::Ownership;

constinit BlockReserve<sizeof(MutexObject), kReservedMutexes> g_reserve;

bool IsOwnedByThisThread(Storage& storage) {
  return storage.ownership.thread.load(std::memory_order_relaxed) == &t_thread;
}

void AddToOwned(Storage& storage) {
  Ownership& ownership = storage.ownership;
  ownership.thread.store(&t_thread, std::memory_order_relaxed);
  ownership.depth = 1;
  ownership.previous = nullptr;
  ownership.next = t_thread.owned;
  if (ownership.next) ownership.next->ownership.previous = &storage;
  t_thread.owned = &storage;
  ArmThreadEnd();
}

void RemoveFromOwned(Storage& storage) {
  Ownership& ownership = storage.ownership;
  (ownership.previous ? ownership.previous->ownership.next : t_thread.owned) = ownership.next;
  if (ownership.next) ownership.next->ownership.previous = ownership.previous;
  ownership.thread.store(nullptr, std::memory_order_relaxed);
}

void GiveUpOwnership(Storage& storage) {
  RemoveFromOwned(storage);
  pthread_mutex_unlock(&storage.state().mutex);
  WakeSeveralWaitsForMutexes();
}

}  // namespace

void* MutexObject::operator new(size_t, const std::nothrow_t&) noexcept { return g_reserve.Allocate(); }
void MutexObject::operator delete(void* block) noexcept { g_reserve.Free(block); }

Taken MutexObject::RecordLock(int lockResult) {
  if (lockResult == EOWNERDEAD)
    pthread_mutex_consistent(&state().mutex);  // at once: released without it the mutex is lost for ever
  else if (lockResult != 0)
    return Taken::kNo;
  bool abandoned = lockResult == EOWNERDEAD;
  if (state().orphaned.load(std::memory_order_relaxed) != 0) {
    state().orphaned.store(0, std::memory_order_relaxed);
    abandoned = true;
  }
  AddToOwned(storage());
  return abandoned ? Taken::kAbandoned : Taken::kYes;
}

Taken MutexObject::TryTake() {
  Storage& storage = this->storage();
  if (IsOwnedByThisThread(storage)) {
    ++storage.ownership.depth;
    return Taken::kYes;
  }
  return RecordLock(pthread_mutex_trylock(&storage.state().mutex));
}

// Tries, since only a try tells whether the owner's process is alive.
bool MutexObject::IsReady() {
  if (IsOwnedByThisThread(storage())) return true;
  const Taken taken = TryTake();
  if (taken == Taken::kNo) return false;
  PutBack(taken);
  return true;
}

void MutexObject::PutBack(Taken taken) {
  if (taken == Taken::kAbandoned) state().orphaned.store(1, std::memory_order_relaxed);
  ReleaseOnce();
}

Taken MutexObject::Wait(int64_t deadlineNs) { return RecordLock(LockUntil(state().mutex, deadlineNs)); }

void MutexObject::RecordInitialOwner() { AddToOwned(storage()); }

bool MutexObject::ReleaseOnce() {
  Storage& storage = this->storage();
  if (!IsOwnedByThisThread(storage)) return false;
  if (--storage.ownership.depth == 0) GiveUpOwnership(storage);
  return true;
}

void AbandonMutexes() {
  while (Storage* storage = t_thread.owned) {
    const StorageReference kept = storage->ShareForOwner();
    storage->state().orphaned.store(1, std::memory_order_relaxed);
    GiveUpOwnership(*storage);
  }
}

void ForgetMutexes() {
  for (Storage* storage = std::exchange(t_thread.owned, nullptr); storage; storage = storage->ownership.next)
    storage->ownership.thread.store(nullptr);
}

}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCWSTR name) {
  return CreateStored<MutexObject>(name, {.kind = Kind::kMutex, .owned = initialOwner != FALSE});
}

HANDLE OpenMutexW(DWORD, BOOL, LPCWSTR name) { return OpenStored<MutexObject>(name, Kind::kMutex); }

BOOL ReleaseMutex(HANDLE handle) {
  const Pin pin(handle);
  auto* mutex = pin.As<MutexObject>(Kind::kMutex);
  if (mutex && mutex->ReleaseOnce()) return TRUE;
  return ReportResult(mutex ? ERROR_NOT_OWNER : ERROR_INVALID_HANDLE);
}
