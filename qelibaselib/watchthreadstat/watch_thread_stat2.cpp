#include <algorithm>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/watchthreadstat/lockmtx.h"
#include "qelibaselib/watchthreadstat/watch_record.h"
#include "qelibaselib/watchthreadstat/watch_thread.h"
#include "qelibaselib/watchthreadstat/watchthreadstat.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

using namespace qel::watch;  // NOLINT(google-build-using-namespace): what both watchdogs are made of

namespace {

constexpr DWORD kLockTimeoutMs = 86400000;

// The records that fall due in one tick, locked from then on until they have been called or the tick is given up.
class DueRecords {
 public:
  DueRecords() = default;
  DueRecords(const DueRecords&) = delete;
  DueRecords& operator=(const DueRecords&) = delete;
  ~DueRecords() {
    while (!records_.IsEmpty()) ReleaseMutex(TakeFirst()->mutex);
  }

  void Lock(WatchRecord* record) {
    records_.AddTail(record);
    WaitForSingleObject(record->mutex, kLockTimeoutMs);
  }

  /// Ends early when the watchdog is gone, and with it the records.
  void CallAll() {
    while (!records_.IsEmpty()) {
      const WatchRecord* record = TakeFirst();
      HANDLE mutex = record->mutex;  // the callback may end its own registration
      qel::Guarded(QEL_HERE, [record] {
        record->callback(record->startTick, record->thread, record->threadId, record->argument);
      });
      ReleaseMutex(mutex);
      if (IsAbandoned()) records_.RemoveAll();
    }
  }

 private:
  WatchRecord* TakeFirst() { return static_cast<WatchRecord*>(records_.RemoveHead()); }
  CPtrList records_{10};
};

}  // namespace

const long CWatchThreadStat2::_Period_ms = 1000;

CWatchThreadStat2::CWatchThreadStat2() : m_pWatchThread(nullptr) {
  qel::Swallowed([this] {
    m_param.m_hStopEvent = CreateEventX(__LINE__, __FILE__, nullptr, FALSE, FALSE, nullptr);
    if (!m_param.m_hStopEvent) return;
    m_param.m_hListMutex = CreateMutexX(__LINE__, __FILE__, nullptr, FALSE, nullptr);
    if (!m_param.m_hListMutex) return;
    m_param.m_hTimer = CreateWaitableTimerA(nullptr, FALSE, nullptr);
    if (!m_param.m_hTimer) return;
    LARGE_INTEGER atOnce;
    atOnce.QuadPart = -1;
    if (!SetWaitableTimer(m_param.m_hTimer, &atOnce, _Period_ms, nullptr, nullptr, FALSE)) return;
    m_pWatchThread = StartWatchThread(&WatchThread, &m_param, THREAD_PRIORITY_LOWEST);
  });
}

CWatchThreadStat2::~CWatchThreadStat2() {
  qel::Guarded(QEL_HERE, [this] {
    if (m_pWatchThread) {
      m_pWatchThread->SetThreadPriority(THREAD_PRIORITY_HIGHEST);
      StopWatchThread(m_pWatchThread, m_param.m_hStopEvent);
    }
    CloseIfOpen(m_param.m_hStopEvent);
    CloseIfOpen(m_param.m_hTimer);
    _ResetWatchList(m_param.m_hListMutex, &m_param.m_watchList);
    CloseIfOpen(m_param.m_hListMutex);
  });
}

void* CWatchThreadStat2::Start(long firstDelayMs, long intervalMs, Callback callback, void* arg) {
  void* handle = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    qel::ScopedObject thread(DuplicateCurrentThread());
    if (!thread) return;
    const CLockMtx lock(m_param.m_hListMutex, kLockTimeoutMs, __LINE__, __FILE__);
    WatchRecordOwner record(static_cast<WatchRecord*>(std::malloc(sizeof(WatchRecord))));
    if (!record) return;
    firstDelayMs = std::max(firstDelayMs, 0l);
    intervalMs = std::max(intervalMs, 0l);
    const DWORD startTick = GetTickCount();
    qel::ScopedObject mutex(CreateMutexX(__LINE__, __FILE__, nullptr, FALSE, nullptr));
    handle = record.get();
    if (!mutex) {
      thread.Release();  // stays open, and the caller gets the address of the freed record: both as they must be
      return;
    }
    *record = {startTick,  mutex.Get(),  firstDelayMs,         intervalMs, firstDelayMs,
               intervalMs, thread.Get(), GetCurrentThreadId(), callback,   arg};
    handle = nullptr;
    m_param.m_watchList.AddTail(record.get());
    handle = record.release();
    mutex.Release();
    thread.Release();
    if (m_param.m_watchList.GetCount() == 1 && m_pWatchThread)
      m_pWatchThread->SetThreadPriority(THREAD_PRIORITY_TIME_CRITICAL);
  });
  return handle;
}

BOOL CWatchThreadStat2::End(void* handle) {
  if (!handle) return FALSE;
  qel::Guarded(QEL_HERE, [&] {
    {
      const CLockMtx lock(m_param.m_hListMutex, kLockTimeoutMs, __LINE__, __FILE__);
      CPtrList& list = m_param.m_watchList;
      const POSITION position = list.Find(handle);
      if (!position) return qel::WriteAssertion(QEL_HERE);  // never given, or ended already: nothing of ours is there
      list.RemoveAt(position);
      if (list.IsEmpty() && m_pWatchThread) m_pWatchThread->SetThreadPriority(THREAD_PRIORITY_LOWEST);
    }
    WatchRecordOwner record(static_cast<WatchRecord*>(handle));
    const qel::ScopedObject mutex(record->mutex);
    const CLockMtx lock(mutex.Get(), kLockTimeoutMs, __LINE__, __FILE__);
    CloseHandle(record->thread);
    record.reset();
  });
  return TRUE;
}

UINT CWatchThreadStat2::WatchThread(void* param) {
  auto* watch = static_cast<T_WatchThreadParam*>(param);
  RunUntilStopped(watch->m_hStopEvent, watch->m_hTimer, [watch] { _TimerEvent(watch); });
  return 0;
}

void CWatchThreadStat2::_TimerEvent(T_WatchThreadParam* param) {
  qel::Guarded(QEL_HERE, [param] {
    DueRecords due;
    {
      const CLockMtx lock(param->m_hListMutex, kLockTimeoutMs, __LINE__, __FILE__);
      for (POSITION position = param->m_watchList.GetHeadPosition(); position;) {
        auto* record = static_cast<WatchRecord*>(param->m_watchList.GetNext(position));
        if (record->FallsDue()) due.Lock(record);
      }
    }
    due.CallAll();
  });
}

void CWatchThreadStat2::_ResetWatchList(void* hListMutex, CPtrList* list) {
  qel::Guarded(QEL_HERE, [&] {
    const CLockMtx lock(hListMutex, kLockTimeoutMs, __LINE__, __FILE__);
    while (!list->IsEmpty()) std::free(list->RemoveHead());
  });
}
