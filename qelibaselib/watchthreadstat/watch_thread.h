/// @file
/// What the two watchdogs have in common: their handles and their watcher thread.
#pragma once
#include "qelibaselib/platform/mfc/thread.h"
#include "qelibaselib/platform/win32.h"
#include "qelibaselib/watchthreadstat/abandoned_watchers.h"

namespace qel::watch {

/// How long a destructor waits for the watcher thread.
inline constexpr DWORD kThreadEndTimeoutMs = 30000;
/// Between two waits that fail outright.
inline constexpr DWORD kPauseAfterFailureMs = 100;

/// A real handle of the calling thread, to be closed; null with the last error.
HANDLE DuplicateCurrentThread();

/// Starts `procedure(param)`; the thread object is the caller's to delete. Null when the thread cannot be made.
CWinThread* StartWatchThread(AFX_THREADPROC procedure, void* param, int priority);

/// Signals the stop event, gives the thread time to end and deletes the thread object. A thread that does not end is
/// told that it is abandoned.
void StopWatchThread(CWinThread* thread, HANDLE stopEvent);

/// Calls `onTimer` for every signal of the timer until the stop event is set or the watchdog is gone.
template <class OnTimer>
void RunUntilStopped(HANDLE stopEvent, HANDLE timer, OnTimer&& onTimer) {
  const HANDLE handles[] = {stopEvent, timer};
  while (!IsAbandoned()) {
    const DWORD outcome = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    if (outcome == WAIT_OBJECT_0) break;
    if (outcome == WAIT_OBJECT_0 + 1) onTimer();
    if (outcome == WAIT_FAILED) Sleep(kPauseAfterFailureMs);
  }
  ForgetWatcher();
}

inline void CloseIfOpen(HANDLE handle) {
  if (handle) CloseHandle(handle);
}

}  // namespace qel::watch
