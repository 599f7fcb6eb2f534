#include "qelibaselib/platform/mfc/thread.h"

#include <memory>
#include <new>

namespace {

struct Start {
  AFX_THREADPROC procedure;
  LPVOID argument;
  CWinThread* thread;
};

DWORD WINAPI Run(LPVOID argument) {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  // Asked now: an object that does not delete itself is its owner's, who may delete it before the thread ends.
  const std::unique_ptr<CWinThread> own(start->thread->m_bAutoDelete ? start->thread : nullptr);
  return start->procedure(start->argument);
}

}  // namespace

CWinThread* AfxBeginThread(AFX_THREADPROC procedure, LPVOID argument, int priority, UINT stackSize, DWORD flags,
                           LPSECURITY_ATTRIBUTES security) {
  std::unique_ptr<CWinThread> thread(new (std::nothrow) CWinThread);
  std::unique_ptr<Start> start(new (std::nothrow) Start{procedure, argument, thread.get()});
  if (!thread || !start) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  thread->m_hThread =
      CreateThread(security, stackSize, &Run, start.get(), flags | CREATE_SUSPENDED, &thread->m_nThreadID);
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
