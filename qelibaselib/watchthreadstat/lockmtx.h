/// @file
/// A scoped lock over a mutex handle that waits in slices of one minute and logs each slice that failed. Header-only:
/// it is compiled into each user and needs nothing of the library but its exported log writers and exception report.
#pragma once
#include <cxxabi.h>

#include <cstdio>

#include "qelibaselib/log/log_writer.h"
#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/platform/mfc/exception.h"
#include "qelibaselib/platform/win32.h"
#include "qelibaselib/settings/settings.h"

/// Belongs to the thread that made it. The mutex itself is the caller's and is never closed. Nested acquisitions
/// through one object are counted here: the mutex is waited for once and released once. An abandoned mutex counts as
/// acquired. All lines carry the position that the constructor was given.
class CLockMtx {
 public:
  /// Waits for the mutex as Lock does. Whether it is held, LockCount tells. `sourceFile` is kept, not copied.
  CLockMtx(HANDLE hMutex, DWORD timeoutMs, int line, const char* sourceFile)
      : m_line(line), m_sourceFile(sourceFile), m_hMutex(hMutex), m_lockCount(0), m_errorCode(0) {
    if (!m_hMutex) Assert(kNullAtConstruction);
    Lock(timeoutMs);
  }
  CLockMtx(const CLockMtx&) = delete;
  CLockMtx& operator=(const CLockMtx&) = delete;
  virtual ~CLockMtx() { _Unlock(TRUE); }

  /// 1 when the mutex is held, 0 when not. INFINITE goes on for ever, also after a wait that failed outright.
  int Lock(DWORD timeoutMs) {
    int result = 0;
    Guarded(__LINE__, [&] {
      if (!m_hMutex) return Assert(kNullAtLock);
      result = timeoutMs == INFINITE ? LockForEver() : LockInSlices(timeoutMs);
    });
    return result;
  }

  /// One wait. `retry` tells that earlier slices have failed, so that a success is worth a line.
  int _Lock(BOOL retry, DWORD sliceMs) {
    int result = 0;
    Guarded(__LINE__, [&] {
      if (!m_hMutex) return Assert(kNullAtWait);
      if (m_lockCount != 0) {
        ++m_lockCount;
        result = 1;
        return;
      }
      const DWORD outcome = WaitForSingleObject(m_hMutex, sliceMs);
      m_errorCode = GetLastError();
      if (outcome == WAIT_OBJECT_0 || outcome == WAIT_ABANDONED) {
        ++m_lockCount;
        result = 1;
        if (retry) LogWait("CLockMtx::_Lock", "RETRY_SUCCESS", sliceMs);
      } else if (outcome == WAIT_TIMEOUT) {
        LogWait("CLockMtx::_Lock", "WAIT_TIMEOUT", sliceMs);
      } else {
        LogWait("CLockMtx::_Lock", "WAIT_FAILED", sliceMs);
        Assert(kWaitFailed);
      }
    });
    return result;
  }

  /// Ends one nested acquisition, or with `all` every one. The mutex is released with the last; then the result is that
  /// of ReleaseMutex. 0 when nothing is held.
  int _Unlock(BOOL all) {
    int result = 0;
    Guarded(__LINE__, [&] {
      if (!m_hMutex) return Assert(kNullAtUnlock);
      if (m_lockCount == 0) return;
      if (all) {
        result = Release(kReleaseOfAllFailed);
        m_lockCount = 0;
      } else {
        result = m_lockCount-- == 1 ? Release(kReleaseFailed) : 1;
      }
    });
    return result;
  }

  /// Acquisitions made through this object; 0 when the mutex is not held.
  DWORD LockCount() const { return m_lockCount; }
  /// The last error after the last wait or failed release.
  DWORD ErrorCode() const { return m_errorCode; }

 private:
  static constexpr DWORD kSliceMs = 60000;
  // The lines that assertions name, with kSourceName.
  static constexpr int kNullAtConstruction = 39;
  static constexpr int kNullAtLock = 62;
  static constexpr int kNullAtWait = 119;
  static constexpr int kWaitFailed = 144;
  static constexpr int kNullAtUnlock = 164;
  static constexpr int kReleaseOfAllFailed = 175;
  static constexpr int kReleaseFailed = 189;
  static constexpr const char* kSourceName = "lockmtx.h";

  int LockForEver() {
    BOOL retry = FALSE;
    while (!_Lock(retry, kSliceMs)) retry = TRUE;
    return 1;
  }

  int LockInSlices(DWORD timeoutMs) {
    BOOL retry = FALSE;
    for (DWORD slices = timeoutMs / kSliceMs; slices > 0; --slices, retry = TRUE)
      if (_Lock(retry, kSliceMs)) return 1;
    if (_Lock(retry, timeoutMs % kSliceMs)) return 1;
    LogWait("CLockMtx::Lock", "ERROR", timeoutMs);
    return 0;
  }

  int Release(int assertionLine) {
    if (const BOOL released = ReleaseMutex(m_hMutex)) return released;
    m_errorCode = GetLastError();
    char message[64];
    std::snprintf(message, sizeof message, "CLockMtx::_Unlock(errCode=%lu, m_hMutex=0x%lx)", m_errorCode,
                  HandleValue());
    VemoLockLogOut(message, m_line, m_sourceFile);
    Assert(assertionLine);
    return 0;
  }

  unsigned long HandleValue() const { return static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(m_hMutex)); }

  void LogWait(const char* function, const char* outcome, DWORD timeMs) const {
    char message[96];
    std::snprintf(message, sizeof message, "%s(%s, tim=%lu, errCode=%lu, m_hMutex=0x%lx)", function, outcome, timeMs,
                  m_errorCode, HandleValue());
    VemoLockLogOut(message, m_line, m_sourceFile);
  }

  static void Assert(int line) {
    char message[64];
    std::snprintf(message, sizeof message, "ASSERT : %s(%d)", kSourceName, line);
    VemoLogOutAssert(message, line, kSourceName);
  }

  // The guard of the library's exports as far as a header can have it: no exception leaves, each is reported.
  template <class Body>
  static void Guarded(int line, Body&& body) {
    try {
      body();
    } catch (abi::__forced_unwind&) {  // the thread is cancelled
      throw;
    } catch (CException* exception) {
      char text[256] = "";
      exception->GetErrorMessage(text, sizeof text);
      char message[300];
      std::snprintf(message, sizeof message, "Exception CATCH_CE : %s", text);
      Report("_CATCH_CE", message, line + 1);
      exception->Delete();
    } catch (...) {
      Report("_CATCH_AE", "Exception CATCH_AE", line + 2);
    }
  }

  static void Report(const char* clause, const char* message, int line) {
    char assertion[64];
    std::snprintf(assertion, sizeof assertion, "ASSERT : %s(%d), %s", kSourceName, line, clause);
    VemoLogOutAssert(assertion, line, kSourceName);
    VemoExceptLogOut(ExeName(), message, nullptr, nullptr, line, kSourceName);
  }

  // By hand: a user should have to link nothing for it.
  static const wchar_t* ExeName() {
    const wchar_t* name = VemoGetExePath();
    for (const wchar_t* at = name; *at; ++at)
      if (*at == L'\\' || *at == L'/') name = at + 1;
    return name;
  }

  int m_line;
  const char* m_sourceFile;
  HANDLE m_hMutex;
  DWORD m_lockCount;
  DWORD m_errorCode;
};
