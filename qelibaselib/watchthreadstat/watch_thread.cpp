#include "qelibaselib/watchthreadstat/watch_thread.h"

namespace qel::watch {

HANDLE DuplicateCurrentThread() {
  HANDLE thread = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread, 0, FALSE,
                       DUPLICATE_SAME_ACCESS))
    return nullptr;
  return thread;
}

CWinThread* StartWatchThread(AFX_THREADPROC procedure, void* param, int priority) {
  CWinThread* thread = AfxBeginThread(procedure, param, priority, 0, CREATE_SUSPENDED);
  if (!thread) return nullptr;
  thread->m_bAutoDelete = FALSE;
  thread->ResumeThread();
  return thread;
}

void StopWatchThread(CWinThread* thread, HANDLE stopEvent) {
  SetEvent(stopEvent);
  if (WaitForSingleObject(thread->m_hThread, kThreadEndTimeoutMs) == WAIT_TIMEOUT) AbandonWatcher(thread->m_nThreadID);
  delete thread;
}

}  // namespace qel::watch
