/// @file
/// Watchdogs for the threads of the process: CWatchThreadStat watches the thread that made it, CWatchThreadStat2 the
/// pieces of work that any thread registers.
#pragma once
#include "qelibaselib/base/export.h"

#ifdef QEL_CLASSES
#include "qelibaselib/platform/mfc/pointer_list.h"
#include "qelibaselib/platform/mfc/thread.h"
#include "qelibaselib/platform/win32.h"

/// Calls back on a thread of its own with the identity of the constructing thread, first after a delay and then
/// periodically, until it is destroyed. The watched thread constructs and destroys it. A failed start leaves an object
/// that never calls; the wrappers that failed have logged it.
class QEL_CLASS CWatchThreadStat {
 public:
  /// Called on the watcher thread at time-critical priority; `hThread` belongs to the watchdog.
  using Callback = void(__stdcall*)(void* hThread, unsigned long threadId, void* arg);

  /// A first delay of 0 ms calls at once, a period of 0 ms makes the first call the only one.
  CWatchThreadStat(unsigned long firstDelayMs, long periodMs, Callback callback, void* arg);
  CWatchThreadStat(const CWatchThreadStat&) = default;
  CWatchThreadStat& operator=(const CWatchThreadStat&) = default;
  /// A callback that is running delays the end by up to 30 s. One that runs longer finds its `hThread` closed; it is
  /// the last.
  virtual ~CWatchThreadStat();

  /// The watcher thread's procedure; `param` is the object's block from m_hThread on.
  static UINT __cdecl WatchThread(void* param);

 protected:
  struct T_WatchParam {
    HANDLE m_hThread;
    DWORD m_threadId;
    HANDLE m_hStopEvent;
    HANDLE m_hTimer;
    Callback m_callback;
    void* m_arg;
  };

  CWinThread* m_pWatchThread;  ///< null when the start failed
  LARGE_INTEGER m_dueTime;     ///< relative, in units of 100 ns
  long m_periodMs;
  T_WatchParam m_param;
};

/// Counts the delays of its registrations down at a tick of _Period_ms and calls back, on one watcher thread, for those
/// that fall due. Any thread may register and end; the object must outlive all registrations that will be ended. A
/// failed start leaves an object that never calls.
class QEL_CLASS CWatchThreadStat2 {
 public:
  /// Called on the watcher thread outside the list's lock, one after another. `startTick` is GetTickCount() at Start;
  /// `hThread` belongs to the registration.
  using Callback = void(__stdcall*)(unsigned long startTick, void* hThread, unsigned long threadId, void* arg);

  /// The tick, and what each tick takes off every pending delay.
  static const long _Period_ms;

  struct T_WatchThreadParam {
    HANDLE m_hStopEvent = nullptr;  ///< auto-reset
    HANDLE m_hTimer = nullptr;      ///< auto-reset
    HANDLE m_hListMutex = nullptr;
    CPtrList m_watchList;  ///< the registrations in the order of Start
  };

  CWatchThreadStat2();
  CWatchThreadStat2(const CWatchThreadStat2&) = delete;
  CWatchThreadStat2& operator=(const CWatchThreadStat2&) = delete;
  /// Waits up to 30 s for a callback that is running; one that runs longer is the last. Registrations that were not
  /// ended are freed, their thread handles stay open.
  virtual ~CWatchThreadStat2();

  /// Registers the calling thread: the first call at the tick that brings `firstDelayMs` to 0 or below, further ones
  /// every `intervalMs` (0: none). A first delay of 0 is already spent: the first call comes after an interval.
  /// Negative times are taken as 0.
  /// @return the registration for End. Null without memory or without a handle of the thread. When the
  ///         registration's mutex cannot be made, the address of a freed record is returned; do not use it.
  void* Start(long firstDelayMs, long intervalMs, Callback callback, void* arg);

  /// Ends a registration; waits for its callback if that is running, so none runs after the return. A callback must not
  /// end its own registration. An address that is no registration, or no longer one, gets a line in the assertion
  /// channel and nothing else. 1, or 0 for null.
  BOOL End(void* handle);

  /// The watcher thread's procedure; `param` is the object's T_WatchThreadParam.
  static UINT __cdecl WatchThread(void* param);
  /// One tick.
  static void _TimerEvent(T_WatchThreadParam* param);
  /// Frees every registration of the list; their mutexes and thread handles stay open.
  static void _ResetWatchList(void* hListMutex, CPtrList* list);

 protected:
  CWinThread* m_pWatchThread;  ///< null when the start failed
  T_WatchThreadParam m_param;
};

/// A registration for a scope.
class QEL_CLASS CWatchThreadStat2Wrap {
 public:
  /// `watcher` is not owned and must outlive the scope; null registers nothing.
  CWatchThreadStat2Wrap(CWatchThreadStat2* watcher, long firstDelayMs, long intervalMs,
                        CWatchThreadStat2::Callback callback, void* arg);
  CWatchThreadStat2Wrap(const CWatchThreadStat2Wrap&) = default;
  CWatchThreadStat2Wrap& operator=(const CWatchThreadStat2Wrap&) = default;
  virtual ~CWatchThreadStat2Wrap();

 protected:
  CWatchThreadStat2* m_pWatcher;
  void* m_hWatch;  ///< null when none
};
#else
using CWatchThreadStat = qel::ClassOfAnotherCompiler<struct T_WatchThreadStatTag>;
using CWatchThreadStat2 = qel::ClassOfAnotherCompiler<struct T_WatchThreadStat2Tag>;
using CWatchThreadStat2Wrap = qel::ClassOfAnotherCompiler<struct T_WatchThreadStat2WrapTag>;
#endif
