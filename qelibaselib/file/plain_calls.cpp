#include "qelibaselib/file/plain_calls.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/bulk_transfer.h"
#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/no_cache_decision.h"
#include "qelibaselib/file/wide_log_text.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

namespace {

// The shortage threshold of a write that goes through views: flush when all memory is in use.
constexpr int kWriteShortageThresholdPercent = 100;

const char* OrNull(const char* text) { return text ? text : "NULL"; }

// An overlapped call that has only begun is no failure.
bool IsPending(DWORD error, const OVERLAPPED* overlapped) { return error == ERROR_IO_PENDING && overlapped != nullptr; }

void LogTransfer(qel::SourcePosition caller, DWORD error, const char* function, HANDLE file, const void* buffer,
                 DWORD bytes, const DWORD* transferred, const OVERLAPPED* overlapped) {
  qel::WriteLineF(qel::channel::kFileOperation, caller, "lastErr=%lu, %s(0x%lx, 0x%p, 0x%lx, 0x%p, 0x%p)", error,
                  function, reinterpret_cast<ULONG_PTR>(file), buffer, bytes, transferred, overlapped);
}

void LogShortWrite(qel::SourcePosition caller, DWORD error, HANDLE file, const void* buffer, DWORD bytesToWrite,
                   const DWORD* bytesWritten) {
  qel::WriteLineF(qel::channel::kFileOperation, caller,
                  "Error, nNumberOfBytesToWrite(%lu) != *lpNumberOfBytesWritten(%lu), lastErr=%lu, "
                  "%s(0x%lx, 0x%p, 0x%lx, 0x%p, 0x%p)",
                  bytesToWrite, *bytesWritten, error, "WriteFileX", reinterpret_cast<ULONG_PTR>(file), buffer,
                  bytesToWrite, bytesWritten, nullptr);
}

void LogTempFileName(qel::SourcePosition caller, DWORD error, const char* function, const char* path,
                     const char* prefix, UINT unique, const void* name) {
  qel::WriteLineF(qel::channel::kFileOperation, caller, "lastErr=%lu, %s(%s, %s, %u, 0x%p)", error, function, path,
                  prefix, unique, name);
}

}  // namespace

BOOL ReadFileX(int line, const char* sourceFile, HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead,
               OVERLAPPED* overlapped) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    done = ReadFile(file, buffer, bytesToRead, bytesRead, overlapped);
    if (done) return;
    const DWORD error = GetLastError();
    if (!IsPending(error, overlapped))
      LogTransfer({line, sourceFile}, error, "ReadFileX", file, buffer, bytesToRead, bytesRead, overlapped);
    qel::RestoreError(error);
  });
  return done;
}

BOOL WriteFileX(int line, const char* sourceFile, HANDLE file, const void* buffer, DWORD bytesToWrite,
                DWORD* bytesWritten, OVERLAPPED* overlapped) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    if (!overlapped && qel::no_cache::enabled && qel::no_cache::DecideForWrite(file, bytesToWrite)) {
      done = WriteFileMMF(line, sourceFile, file, buffer, bytesToWrite, bytesWritten, nullptr,
                          kWriteShortageThresholdPercent);
      return;
    }
    done = WriteFile(file, buffer, bytesToWrite, bytesWritten, overlapped);
    if (done && (overlapped || *bytesWritten == bytesToWrite)) return;
    const DWORD error = GetLastError();
    if (done)
      LogShortWrite({line, sourceFile}, error, file, buffer, bytesToWrite, bytesWritten);
    else if (!IsPending(error, overlapped))
      LogTransfer({line, sourceFile}, error, "WriteFileX", file, buffer, bytesToWrite, bytesWritten, overlapped);
    qel::RestoreError(error);
  });
  return done;
}

unsigned long long GetFileSizeX(const wchar_t* fileName, WIN32_FIND_DATAW* findData, DWORD* lastError) {
  unsigned long long size = 0;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath path(fileName);
    const qel::ScopedFind find(FindFirstFileW(path, findData));
    *lastError = GetLastError();
    if (find) size = static_cast<unsigned long long>(findData->nFileSizeHigh) << 32 | findData->nFileSizeLow;
  });
  return size;
}

BOOL MoveFileX(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName) {
  BOOL moved = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath existing(existingFileName), target(newFileName);
    SHCreateDirectoryExX(line, sourceFile, target.Folder());
    DeleteFileW(target);
    moved = MoveFileW(existing, target);
    const DWORD error = GetLastError();
    if (!moved) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile}, "lastErr=%lu, %s(%s, %s)", error, "MoveFileX",
                      qel::WideLogText(existingFileName).Get(), qel::WideLogText(newFileName).Get());
    }
    qel::RestoreError(error);
  });
  return moved;
}

UINT GetTempFileNameX(int line, const char* sourceFile, const wchar_t* pathName, const wchar_t* prefixString,
                      UINT unique, wchar_t* tempFileName) {
  UINT number = 0;
  qel::Guarded(QEL_HERE, [&] {
    number = GetTempFileNameW(pathName, prefixString, unique, tempFileName);
    const DWORD error = GetLastError();
    if (number == 0) {
      LogTempFileName({line, sourceFile}, error, "GetTempFileNameX", qel::WideLogText(pathName).Get(),
                      qel::WideLogText(prefixString).Get(), unique, tempFileName);
    }
    qel::RestoreError(error);
  });
  return number;
}

UINT GetTempFileNameTX(int line, const char* sourceFile, const char* pathName, const char* prefixString, UINT unique,
                       char* tempFileName) {
  UINT number = 0;
  qel::Guarded(QEL_HERE, [&] {
    number = GetTempFileNameA(pathName, prefixString, unique, tempFileName);
    const DWORD error = GetLastError();
    if (number == 0) {
      LogTempFileName({line, sourceFile}, error, "GetTempFileNameTX", OrNull(pathName), OrNull(prefixString), unique,
                      tempFileName);
    }
    qel::RestoreError(error);
  });
  return number;
}

BOOL SHCreateDirectoryExX(int line, const char* sourceFile, const wchar_t* pathName) {
  BOOL exists = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath path(pathName);
    if (PathIsRootW(path)) {
      exists = TRUE;
      return;
    }
    const DWORD code = static_cast<DWORD>(SHCreateDirectoryExW(nullptr, path, nullptr));
    exists = code == ERROR_SUCCESS || code == ERROR_FILE_EXISTS || code == ERROR_ALREADY_EXISTS;
    if (!exists) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile}, "lastErr=%lu, %s(%s)", code,
                      "SHCreateDirectoryExX", qel::WideLogText(pathName).Get());
    }
    qel::RestoreError(code);
  });
  return exists;
}

void ReplaceBackslashFromPath(wchar_t* path, const wchar_t* replacement) {
  qel::Guarded(QEL_HERE, [&] {
    for (wchar_t* at = path; *at != L'\0'; ++at) {
      if (*at == L'\\') *at = *replacement;
    }
  });
}
