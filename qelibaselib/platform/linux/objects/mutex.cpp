#include "qelibaselib/platform/linux/objects/mutex.h"

#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/objects/block_reserve.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

using Ownership = Storage::Ownership;

constinit BlockReserve<sizeof(Mutex), kReservedMutexes> g_reserve;

bool IsMine(Storage& storage) { return storage.ownership.thread.load(std::memory_order_relaxed) == &t_thread; }

// Closing the last handle of a mutex that is owned keeps its storage: memory that the thread's robust list points into
// must not be unmapped, and the lock stays until it is released or the thread ends.
void Own(Storage& storage) {
  Ownership& ownership = storage.ownership;
  ownership.thread.store(&t_thread, std::memory_order_relaxed);
  ownership.depth = 1;
  ownership.previous = nullptr;
  ownership.next = t_thread.owned;
  if (ownership.next) ownership.next->ownership.previous = &storage;
  t_thread.owned = &storage;
  ArmThreadEnd();
}

void Disown(Storage& storage) {
  Ownership& ownership = storage.ownership;
  (ownership.previous ? ownership.previous->ownership.next : t_thread.owned) = ownership.next;
  if (ownership.next) ownership.next->ownership.previous = ownership.previous;
  ownership.thread.store(nullptr, std::memory_order_relaxed);
  const bool keeps = std::exchange(ownership.keeps, false);
  pthread_mutex_unlock(&storage.state().mutex);
  MutexChangedAmongSeveral();
  if (keeps) storage.DropUser();
}

// About 15 us, as long as a sleep and the waking from it cost: most mutexes are held for less, a log line's for a
// third. Of no use where nobody else can run meanwhile.
int Spin(pthread_mutex_t& mutex) {
  constexpr int kTries = 30, kPauses = 20;
  static const bool alone = sysconf(_SC_NPROCESSORS_ONLN) < 2;
  if (alone) return EBUSY;
  int result = EBUSY;
  for (int i = 0; i < kTries && result == EBUSY; ++i) {
    for (int pause = 0; pause < kPauses; ++pause) __builtin_ia32_pause();
    result = pthread_mutex_trylock(&mutex);
  }
  return result;
}

}  // namespace

int LockUntil(pthread_mutex_t& mutex, int64_t deadlineNs) {
  if (const int result = Spin(mutex); result != EBUSY) return result;
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

void* Mutex::operator new(size_t, const std::nothrow_t&) noexcept { return g_reserve.Allocate(); }
void Mutex::operator delete(void* block) noexcept { g_reserve.Free(block); }

// Process ends are told by the kernel, thread ends by a mark of ours.
Taken Mutex::Locked(int result) {
  if (result == EOWNERDEAD)
    pthread_mutex_consistent(&state().mutex);  // at once: released without it the mutex is lost for ever
  else if (result != 0)
    return Taken::kNo;
  bool abandoned = result == EOWNERDEAD;
  if (state().orphaned.load(std::memory_order_relaxed) != 0) {
    state().orphaned.store(0, std::memory_order_relaxed);
    abandoned = true;
  }
  Own(storage());
  return abandoned ? Taken::kAbandoned : Taken::kYes;
}

Taken Mutex::TryTake() {
  Storage& storage = this->storage();
  if (IsMine(storage)) {
    ++storage.ownership.depth;
    return Taken::kYes;
  }
  return Locked(pthread_mutex_trylock(&storage.state().mutex));
}

// Tries, since only a try tells whether the owner's process is alive.
bool Mutex::IsReady() {
  if (IsMine(storage())) return true;
  const Taken taken = TryTake();
  if (taken == Taken::kNo) return false;
  PutBack(taken);
  return true;
}

void Mutex::PutBack(Taken taken) {
  if (taken == Taken::kAbandoned) state().orphaned.store(1, std::memory_order_relaxed);
  Release();
}

Taken Mutex::Wait(int64_t deadlineNs) { return Locked(LockUntil(state().mutex, deadlineNs)); }

void Mutex::TookAtCreation() { Own(storage()); }

bool Mutex::Release() {
  Storage& storage = this->storage();
  if (!IsMine(storage)) return false;
  if (--storage.ownership.depth == 0) Disown(storage);
  return true;
}

void AbandonMutexes() {
  while (Storage* storage = t_thread.owned) {
    storage->KeepForOwner();
    storage->state().orphaned.store(1, std::memory_order_relaxed);
    Disown(*storage);
  }
}

void ForgetMutexes() {
  for (Storage* storage = std::exchange(t_thread.owned, nullptr); storage; storage = storage->ownership.next)
    storage->ownership.thread.store(nullptr);
}

}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCWSTR name) {
  return CreateStored<Mutex>(name, {.kind = Kind::kMutex, .owned = initialOwner != FALSE});
}

HANDLE OpenMutexW(DWORD, BOOL, LPCWSTR name) { return OpenStored<Mutex>(name, Kind::kMutex); }

BOOL ReleaseMutex(HANDLE handle) {
  const Pin pin(handle);
  auto* mutex = pin.As<Mutex>(Kind::kMutex);
  if (mutex && mutex->Release()) return TRUE;
  SetLastError(mutex ? ERROR_NOT_OWNER : ERROR_INVALID_HANDLE);
  return FALSE;
}
