// Watchdogs whose ticks the test makes itself.
#pragma once
#include <vector>

#include "qelibaselib/watchthreadstat/watchthreadstat.h"
#include "test/support/replace_call.h"

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

// A callback that stays until it is let go.
struct LongCall {
  HANDLE entered = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  HANDLE leave = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ~LongCall() {
    CloseHandle(entered);
    CloseHandle(leave);
  }
  void Stay() {
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

}  // namespace qel::test
