#include "qelibaselib/file/retrying_calls.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/plain_calls.h"
#include "qelibaselib/file/retry_budget.h"
#include "qelibaselib/file/wide_log_text.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

namespace qel {
namespace {

// Attempts until one succeeds or the budget says no. `attempt` returns whether it succeeded, the last error being that
// of the wrapped call; `log` writes the line of a failure or of the end.
template <class Attempt, class Log>
void TryWithin(RetryBudget& budget, Attempt attempt, Log log) {
  for (;;) {
    const bool succeeded = attempt();
    const DWORD error = GetLastError();
    if (succeeded) {
      if (budget.RetryCount() == 0)
        RestoreError(error);
      else
        log(ERROR_SUCCESS, "Complete");
      return;
    }
    if (!budget.AllowsRetry(error)) {
      log(error, "Complete");
      RestoreError(error);
      return;
    }
    log(error, "Retry");
    budget.WaitForRetry();
  }
}

void MakeFolderOf(SourcePosition caller, const CleanPath& path) {
  SHCreateDirectoryExX(caller.line, caller.sourceFile, path.Folder());
}

// What CreateFileX opens. The access is the one last used: reading is asked for with writing, and given up again when
// that is refused.
struct FileOpening {
  const wchar_t* fileName;
  DWORD access, shareMode;
  LPSECURITY_ATTRIBUTES security;
  DWORD disposition, flagsAndAttributes;
  HANDLE templateFile;

  bool MayMakeFile() const {
    return (access & GENERIC_WRITE) &&
           (disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS);
  }
  HANDLE Open(const CleanPath& path) const {
    return CreateFileW(path, access, shareMode, security, disposition, flagsAndAttributes, templateFile);
  }
  HANDLE Attempt(SourcePosition caller) {
    const CleanPath path(fileName);
    if (MayMakeFile()) MakeFolderOf(caller, path);
    const bool addsReading = (access & GENERIC_WRITE) && !(access & GENERIC_READ);
    if (addsReading) access |= GENERIC_READ;
    HANDLE file = Open(path);
    if (file == INVALID_HANDLE_VALUE && addsReading) {
      access &= ~GENERIC_READ;
      file = Open(path);
    }
    return file;
  }
  void Log(SourcePosition caller, const RetryBudget& budget, DWORD error, const char* status) const {
    WriteLineF(channel::kFileOperation, caller,
               "retryCount=%lu, lastErr=%lu, %s, %s(%s, 0x%lx, 0x%lx, 0x%p, 0x%lx, 0x%lx, 0x%lx, %lu, %lu)",
               budget.RetryCount(), error, status, "CreateFileX", WideLogText(fileName).Get(), access, shareMode,
               security, disposition, flagsAndAttributes, reinterpret_cast<ULONG_PTR>(templateFile), budget.TimeoutMs(),
               budget.IntervalMs());
  }
};

bool FileExists(const CleanPath& path) {
  WIN32_FIND_DATAW data;
  const ScopedFind find(FindFirstFileW(path, &data));
  return static_cast<bool>(find);
}

}  // namespace
}  // namespace qel

HANDLE CreateFileX(int line, const char* sourceFile, const wchar_t* fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES sa, DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile,
                   DWORD timeoutMs, DWORD intervalMs) {
  HANDLE file = INVALID_HANDLE_VALUE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::SourcePosition caller{line, sourceFile};
    qel::FileOpening request{fileName,           desiredAccess, shareMode, sa, creationDisposition,
                             flagsAndAttributes, templateFile};
    qel::RetryBudget budget(timeoutMs, intervalMs);
    qel::TryWithin(
        budget,
        [&] {
          file = request.Attempt(caller);
          return file != INVALID_HANDLE_VALUE;
        },
        [&](DWORD error, const char* status) { request.Log(caller, budget, error, status); });
  });
  return file;
}

BOOL CopyFileX(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName,
               BOOL failIfExists, DWORD timeoutMs, DWORD intervalMs) {
  BOOL copied = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::SourcePosition caller{line, sourceFile};
    qel::RetryBudget budget(timeoutMs, intervalMs);
    qel::TryWithin(
        budget,
        [&] {
          const qel::CleanPath existing(existingFileName), target(newFileName);
          qel::MakeFolderOf(caller, existing);
          qel::MakeFolderOf(caller, target);
          copied = CopyFileW(existing, target, failIfExists);
          return copied != FALSE;
        },
        [&](DWORD error, const char* status) {
          qel::WriteLineF(qel::channel::kFileOperation, caller,
                          "retryCount=%lu, lastErr=%lu, %s, %s(%s, %s, %d, %lu, %lu)", budget.RetryCount(), error,
                          status, "CopyFileX", qel::WideLogText(existingFileName).Get(),
                          qel::WideLogText(newFileName).Get(), failIfExists, budget.TimeoutMs(), budget.IntervalMs());
        });
  });
  return copied;
}

BOOL DeleteFileX(int line, const char* sourceFile, const wchar_t* fileName, DWORD timeoutMs, DWORD intervalMs) {
  BOOL deleted = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath path(fileName);
    if (!qel::FileExists(path)) return;
    deleted = DeleteFileW(path);
    DWORD error = GetLastError();
    if (!deleted) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile}, "lastErr=%lu, %s(%s)", error, "DeleteFileX",
                      qel::WideLogText(fileName).Get());
      qel::RetryBudget budget(timeoutMs, intervalMs);
      do {
        Sleep(budget.IntervalMs());
        deleted = DeleteFileW(path);
        error = GetLastError();
      } while (!deleted && budget.SpendInterval());
    }
    qel::RestoreError(error);
  });
  return deleted;
}
