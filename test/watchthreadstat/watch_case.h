// Watchdogs whose ticks the test makes itself.
#pragma once
#include "test/support/library.h"

namespace qel::test {

// While it lives, timers are accepted and never armed.
struct StillTimer {
  std::vector<LONGLONG> dueTimes;
  std::vector<LONG> periods;
  StandIn<"SetWaitableTimer", decltype(&::SetWaitableTimer)> standIn{
      [this](int, HANDLE, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE, LPVOID, BOOL) {
        dueTimes.push_back(due->QuadPart);
        periods.push_back(period);
        return TRUE;
      }};
};

// While it lives, a watchdog finds at once that the time for its watcher's end is over.
struct NoPatience {
  StandIn<"WaitForSingleObject", decltype(&::WaitForSingleObject)> standIn{[](int, HANDLE handle, DWORD timeoutMs) {
    return timeoutMs == 30000 ? WAIT_TIMEOUT : WaitForSingleObject(handle, timeoutMs);
  }};
};

// While it lives, no priority is changed; notes which would be.
struct Priorities {
  std::vector<int> values;
  StandIn<"SetThreadPriority", decltype(&::SetThreadPriority)> standIn{[this](int, HANDLE, int value) {
    values.push_back(value);
    return TRUE;
  }};
};

// A callback that stays until it is let go.
struct LongCall {
  const Handle entered = NewEvent(true), leave = NewEvent(true);
  void Stay() const {
    SetEvent(entered);
    WaitForSingleObject(leave, INFINITE);
  }
};

inline HANDLE DuplicateOf(HANDLE handle) {
  HANDLE copy = nullptr;
  DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
  return copy;
}

class ManualWatch : public CWatchThreadStat2 {
 public:
  void Tick() { _TimerEvent(&m_param); }
  T_WatchThreadParam& Param() { return m_param; }
  CWinThread* Thread() { return m_pWatchThread; }
};

// A watchdog that goes away while its callback stays: the watcher ends when it is let go.
template <class Watch, class... Arguments>
void ExpectWatcherToEndWith(LongCall& call, const std::function<void(Watch&)>& start, Arguments&... arguments) {
  ScopedObject watcher;
  {
    const NoPatience impatient;
    Watch watch(arguments...);
    start(watch);
    ASSERT_EQ(WaitForSingleObject(call.entered, 30000), WAIT_OBJECT_0);
    watcher = ScopedObject(DuplicateOf(watch.Thread()->m_hThread));
  }
  SetEvent(call.leave);
  EXPECT_EQ(WaitForSingleObject(watcher.Get(), 20000), WAIT_OBJECT_0);
}

}  // namespace qel::test
