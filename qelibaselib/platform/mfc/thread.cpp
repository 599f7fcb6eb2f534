#include "qelibaselib/platform/mfc/thread.h"

#include <memory>
#include <new>

namespace {

struct ThreadStart {
  AFX_THREADPROC procedure;
  LPVOID argument;
  CWinThread* thread;
};

DWORD WINAPI RunThread(LPVOID argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  // Asked now: an object that does not delete itself is its owner's, who may delete it before the thread ends.
  const std::unique_ptr<CWinThread> own(start->thread->m_bAutoDelete ? start->thread : nullptr);
  return start->procedure(start->argument);
}

}  // namespace

CWinThread* AfxBeginThread(AFX_THREADPROC procedure, LPVOID argument, int priority, UINT stackSize, DWORD flags,
                           LPSECURITY_ATTRIBUTES security) {
  std::unique_ptr<CWinThread> thread(new (std::nothrow) CWinThread);
  std::unique_ptr<ThreadStart> start(new (std::nothrow) ThreadStart{procedure, argument, thread.get()});
  if (!thread || !start) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  thread->m_hThread =
      CreateThread(security, stackSize, &RunThread, start.get(), flags | CREATE_SUSPENDED, &thread->m_nThreadID);
  if (!thread->m_hThread) {
    const DWORD error = GetLastError();
    start.reset();
    thread.reset();
    SetLastError(error);
    return nullptr;
  }
  static_cast<void>(start.release());  // the thread has it
  thread->SetThreadPriority(priority);
  CWinThread* const begun = thread.release();
  if (!(flags & CREATE_SUSPENDED)) begun->ResumeThread();
  return begun;
}
