#include <algorithm>
#include <array>
#include <optional>

#include "qelibaselib/platform/linux/handles/pseudo_handle.h"
#include "qelibaselib/platform/linux/objects/waitable.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// A wait for several objects sleeps on one word of the process, which every change of an object moves on while such a
// wait is under way.
constinit Word g_anyChange{0};
constinit Word g_severalWaits{0};
// Those of them that include a mutex. Mutexes change often, and a wait for other objects alone would be woken each
// time.
constinit Word g_severalWaitsWithMutex{0};

// Changes that other processes make do not reach g_anyChange.
constexpr int64_t kOutsideSliceNs = 5 * kNsPerMs;

class SeveralWait {
 public:
  SeveralWait(Waitable* const* objects, DWORD count)
      : hasMutex_(std::any_of(objects, objects + count,
                              [](const Waitable* object) { return object->kind() == Kind::kMutex; })) {
    g_severalWaits.fetch_add(1);
    if (hasMutex_) g_severalWaitsWithMutex.fetch_add(1);
  }
  SeveralWait(const SeveralWait&) = delete;
  SeveralWait& operator=(const SeveralWait&) = delete;
  ~SeveralWait() {
    g_severalWaits.fetch_sub(1);
    if (hasMutex_) g_severalWaitsWithMutex.fetch_sub(1);
  }

 private:
  const bool hasMutex_;
};

void WakeSeveral() {
  g_anyChange.fetch_add(1);
  WakeAll(g_anyChange, Scope::kProcess);
}

DWORD ResultOf(Taken taken, DWORD index) { return (taken == Taken::kAbandoned ? WAIT_ABANDONED_0 : 0) + index; }

DWORD TakeAny(Waitable* const* objects, DWORD count) {
  for (DWORD i = 0; i < count; ++i)
    if (const Taken taken = objects[i]->TryTake(); taken != Taken::kNo) return ResultOf(taken, i);
  return WAIT_TIMEOUT;
}

// All or none: what was taken before another object was lost to somebody else is put back.
DWORD TakeAll(Waitable* const* objects, DWORD count) {
  if (!std::all_of(objects, objects + count, [](Waitable* object) { return object->IsReady(); })) return WAIT_TIMEOUT;
  std::array<Taken, MAXIMUM_WAIT_OBJECTS> taken;
  DWORD result = WAIT_OBJECT_0;
  for (DWORD i = 0; i < count; ++i) {
    taken[i] = objects[i]->TryTake();
    if (taken[i] == Taken::kAbandoned && result == WAIT_OBJECT_0) result = WAIT_ABANDONED_0;
    if (taken[i] != Taken::kNo) continue;
    while (i-- > 0) objects[i]->PutBack(taken[i]);
    return WAIT_TIMEOUT;
  }
  return result;
}

using Take = DWORD (*)(Waitable* const* objects, DWORD count);

DWORD WaitSeveral(Waitable* const* objects, DWORD count, Take take, int64_t deadlineNs) {
  const SeveralWait several(objects, count);
  for (;;) {
    // Both before the try, so that no later change and no later due time is missed.
    const uint32_t seen = g_anyChange.load();
    const int64_t now = MonotonicNs();
    if (const DWORD result = take(objects, count); result != WAIT_TIMEOUT) return result;
    if (now >= deadlineNs) return WAIT_TIMEOUT;
    int64_t limit = deadlineNs;
    for (DWORD i = 0; i < count; ++i) {
      // A timer that is due already waits for the others, whose changes will be told.
      if (const int64_t due = objects[i]->DueNs(); due > now) limit = std::min(limit, due);
      if (objects[i]->ChangesFromOutside()) limit = std::min(limit, now + kOutsideSliceNs);
    }
    SleepOn(g_anyChange, seen, Scope::kProcess, limit);
  }
}

// What a wait keeps alive: the object behind a handle, the current process or the current thread.
class WaitTarget {
 public:
  explicit WaitTarget(HANDLE handle) : pin_(handle) {
    const Object* object = pin_.get();
    if (object && IsWaitable(object->kind()))
      object_ = static_cast<Waitable*>(pin_.get());
    else if (!object)
      object_ = static_cast<Waitable*>(FindPseudoObject(handle));  // processes and threads can be waited for
  }
  Waitable* get() const { return object_; }

 private:
  const Pin pin_;
  Waitable* object_ = nullptr;
};

bool HoldsOneTwice(Waitable* const* objects, DWORD count) {
  for (DWORD i = 1; i < count; ++i)
    if (std::find(objects, objects + i, objects[i]) != objects + i) return true;
  return false;
}

DWORD FailWait(DWORD error) {
  SetLastError(error);
  return WAIT_FAILED;
}

}  // namespace

void WakeSeveralWaitsForMutexes() {
  if (g_severalWaitsWithMutex.load() != 0) WakeSeveral();
}

void WakeWaitsFor(Word& word, Scope scope) {
  WakeAll(word, scope);
  if (g_severalWaits.load() != 0) WakeSeveral();
}

Taken Waitable::Wait(int64_t deadlineNs) {
  for (;;) {
    const uint32_t seen = word().load();
    if (const Taken taken = TryTake(); taken != Taken::kNo) return taken;
    if (deadlineNs != kNever && MonotonicNs() >= deadlineNs) return Taken::kNo;
    SleepOn(word(), seen, scope(), std::min(deadlineNs, DueNs()));
  }
}

}  // namespace qel::layer

using namespace qel::layer;

DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs) {
  const WaitTarget target(handle);
  if (!target.get()) return FailWait(ERROR_INVALID_HANDLE);
  Taken taken = target.get()->TryTake();
  if (taken == Taken::kNo && timeoutMs != 0) taken = target.get()->Wait(DeadlineNs(timeoutMs));
  return taken == Taken::kNo ? WAIT_TIMEOUT : ResultOf(taken, 0);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD timeoutMs) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS) return FailWait(ERROR_INVALID_PARAMETER);
  std::array<std::optional<WaitTarget>, MAXIMUM_WAIT_OBJECTS> targets;
  std::array<Waitable*, MAXIMUM_WAIT_OBJECTS> objects;
  for (DWORD i = 0; i < count; ++i) {
    objects[i] = targets[i].emplace(handles[i]).get();
    if (!objects[i]) return FailWait(ERROR_INVALID_HANDLE);
  }
  if (all && HoldsOneTwice(objects.data(), count)) return FailWait(ERROR_INVALID_PARAMETER);
  const Take take = all ? TakeAll : TakeAny;
  if (timeoutMs == 0) return take(objects.data(), count);
  return WaitSeveral(objects.data(), count, take, DeadlineNs(timeoutMs));
}
