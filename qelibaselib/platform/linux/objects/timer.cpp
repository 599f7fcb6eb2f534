#include <algorithm>
#include <ctime>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/waitable.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"

namespace qel::layer {
namespace {

constexpr int64_t kNsPerUnit = 100;
constexpr int64_t kUnitsTo1970 = 116'444'736'000'000'000;

int64_t SystemTimeUnits() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (now.tv_sec * kNsPerSecond + now.tv_nsec) / kNsPerUnit + kUnitsTo1970;
}

// The clock's time of a due time in units of 100 ns: negative ones count from now, others are system time.
int64_t DueTimeNs(int64_t units) {
  constexpr int64_t kMostUnits = kNever / kNsPerUnit / 4;
  const int64_t ahead = units < 0 ? -std::max(units, -kMostUnits) : units - SystemTimeUnits();
  return MonotonicNs() + std::clamp<int64_t>(ahead, 0, kMostUnits) * kNsPerUnit;
}

// Whether it is signalled is worked out from the clock: it is from its due time on, until the due time is moved.
class TimerObject final : public StoredObject {
 public:
  explicit TimerObject(StorageReference storage) : StoredObject(Kind::kTimer, std::move(storage)) {}

  Taken TryTake() override {
    int64_t due = state().dueNs.load();
    for (;;) {
      const int64_t now = due == kNever ? 0 : MonotonicNs();
      if (now < due) return Taken::kNo;
      if (state().parameter != 0) return Taken::kYes;
      // Ticks that nobody waited for become this one.
      const int64_t period = state().periodNs.load();
      const int64_t next = period == 0 ? kNever : due + ((now - due) / period + 1) * period;
      if (state().dueNs.compare_exchange_weak(due, next)) return Taken::kYes;
    }
  }
  bool IsReady() override { return DueNs() != kNever && DueNs() <= MonotonicNs(); }
  // The tick that was taken: the timer is due again at once, and in step as far as a period goes.
  void PutBack(Taken) override {
    if (state().parameter == 0) MoveTo(MonotonicNs(), state().periodNs.load());
  }
  int64_t DueNs() override { return state().dueNs.load(); }

  void MoveTo(int64_t dueNs, int64_t periodNs) {
    state().dueNs.store(kNever);  // so that no wait pairs the old due time with the new period
    state().periodNs.store(periodNs);
    state().dueNs.store(dueNs);
    word().fetch_add(1);
    WakeWaitsFor(word(), scope());
  }
  // A timer that is signalled stays so.
  void Cancel() {
    state().periodNs.store(0);
    int64_t due = state().dueNs.load();
    while (due != kNever && due > MonotonicNs())
      if (state().dueNs.compare_exchange_weak(due, kNever)) break;
    word().fetch_add(1);
    WakeWaitsFor(word(), scope());
  }
};

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateWaitableTimerA(LPSECURITY_ATTRIBUTES, BOOL manualReset, LPCSTR name) {
  const StorageRequest request = {.kind = Kind::kTimer, .parameter = manualReset != FALSE};
  if (!name) return CreateStored<TimerObject>(nullptr, request);
  wchar_t wide[MAX_PATH];
  for (size_t i = 0; i < MAX_PATH; ++i) {
    wide[i] = static_cast<unsigned char>(name[i]);
    if (!name[i]) return CreateStored<TimerObject>(wide, request);
  }
  SetLastError(ERROR_FILENAME_EXCED_RANGE);
  return nullptr;
}

BOOL SetWaitableTimer(HANDLE handle, const LARGE_INTEGER* dueTime, LONG periodMs, PTIMERAPCROUTINE completion, LPVOID,
                      BOOL resume) {
  const Pin pin(handle);
  auto* timer = pin.As<TimerObject>(Kind::kTimer);
  if (!timer) return ReportResult(ERROR_INVALID_HANDLE);
  if (periodMs < 0 || !dueTime) return ReportResult(ERROR_INVALID_PARAMETER);
  if (completion || resume) return ReportResult(ERROR_NOT_SUPPORTED);
  timer->MoveTo(DueTimeNs(dueTime->QuadPart), periodMs * kNsPerMs);
  return TRUE;
}

BOOL CancelWaitableTimer(HANDLE handle) {
  const Pin pin(handle);
  auto* timer = pin.As<TimerObject>(Kind::kTimer);
  if (timer) timer->Cancel();
  return ReportResult(timer ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}
