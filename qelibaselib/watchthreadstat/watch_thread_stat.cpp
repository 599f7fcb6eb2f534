#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/watchthreadstat/watch_thread.h"
#include "qelibaselib/watchthreadstat/watchthreadstat.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

using namespace qel::watch;  // NOLINT(google-build-using-namespace): what both watchdogs are made of

namespace {
constexpr LONGLONG kRelativeUnitsPerMs = -10000;  // of 100 ns; negative times are relative
}

CWatchThreadStat::CWatchThreadStat(unsigned long firstDelayMs, long periodMs, Callback callback, void* arg)
    : m_pWatchThread(nullptr), m_dueTime{}, m_periodMs(periodMs), m_param{} {
  m_param.m_callback = callback;
  m_param.m_arg = arg;
  m_dueTime.QuadPart = static_cast<LONGLONG>(firstDelayMs) * kRelativeUnitsPerMs;
  qel::Swallowed([this] {
    m_param.m_hThread = DuplicateCurrentThread();
    if (!m_param.m_hThread) return;
    m_param.m_threadId = GetCurrentThreadId();
    m_param.m_hStopEvent = CreateEventX(__LINE__, __FILE__, nullptr, FALSE, FALSE, nullptr);
    if (!m_param.m_hStopEvent) return;
    m_param.m_hTimer = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    if (!m_param.m_hTimer) return;
    if (!SetWaitableTimer(m_param.m_hTimer, &m_dueTime, m_periodMs, nullptr, nullptr, FALSE)) return;
    m_pWatchThread = StartWatchThread(&WatchThread, &m_param, THREAD_PRIORITY_TIME_CRITICAL);
  });
}

CWatchThreadStat::~CWatchThreadStat() {
  qel::Guarded(QEL_HERE, [this] {
    if (m_pWatchThread) StopWatchThread(m_pWatchThread, m_param.m_hStopEvent);
    CloseIfOpen(m_param.m_hThread);
    CloseIfOpen(m_param.m_hStopEvent);
    CloseIfOpen(m_param.m_hTimer);
  });
}

UINT CWatchThreadStat::WatchThread(void* param) {
  const auto& watch = *static_cast<const T_WatchParam*>(param);
  RunUntilStopped(watch.m_hStopEvent, watch.m_hTimer, [&watch] {
    qel::Guarded(QEL_HERE, [&watch] { watch.m_callback(watch.m_hThread, watch.m_threadId, watch.m_arg); });
  });
  return 0;
}
