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

class ManualWatch : public CWatchThreadStat2 {
 public:
  void Tick() { _TimerEvent(&m_param); }
  T_WatchThreadParam& Param() { return m_param; }
  CWinThread* Thread() { return m_pWatchThread; }
};

}  // namespace qel::test
