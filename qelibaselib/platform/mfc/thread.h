/// @file
/// The framework's worker threads, as far as they are used.
#pragma once
#include "qelibaselib/platform/win32.h"

using AFX_THREADPROC = UINT(__cdecl*)(LPVOID argument);

/// Owns the handle of a thread that AfxBeginThread started; deleting the object closes it and does not end the thread.
class CWinThread {
 public:
  CWinThread() = default;
  CWinThread(const CWinThread&) = delete;
  CWinThread& operator=(const CWinThread&) = delete;
  virtual ~CWinThread() {
    if (m_hThread) CloseHandle(m_hThread);
  }
  BOOL SetThreadPriority(int priority) { return ::SetThreadPriority(m_hThread, priority); }
  int GetThreadPriority() const { return ::GetThreadPriority(m_hThread); }
  DWORD ResumeThread() { return ::ResumeThread(m_hThread); }

  BOOL m_bAutoDelete = TRUE;  ///< the object deletes itself when the thread ends; set before the thread is resumed
  HANDLE m_hThread = nullptr;
  DWORD m_nThreadID = 0;
};

/// Starts `procedure(argument)` on a thread of its own. With CREATE_SUSPENDED in `flags` it stands still until it is
/// resumed. Null, with the last error, when the thread cannot be made.
CWinThread* AfxBeginThread(AFX_THREADPROC procedure, LPVOID argument, int priority = THREAD_PRIORITY_NORMAL,
                           UINT stackSize = 0, DWORD flags = 0, LPSECURITY_ATTRIBUTES security = nullptr);
