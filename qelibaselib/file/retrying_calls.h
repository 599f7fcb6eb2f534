/// @file
/// Opening, copying and deleting files with patience. See qelibaselib/file/file.h for what holds for all.
///
/// `timeoutMs` is the time that may be slept away in all, INFINITE for no limit; `intervalMs`, cut to 60000, is the
/// sleep between two attempts. Time spent in the calls themselves does not count.
///
/// Mind an interval of 0: CreateFileX and CopyFileX then take nothing from a budget that is not 0, so a sharing
/// violation keeps them trying, without a pause, until it is over. Hosts rely on it as it is.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// CreateFileW, retried while the budget lasts. Returns the handle, to be closed with CloseHandle, or
/// INVALID_HANDLE_VALUE.
///
/// For writing to a file that may be new, the folder of `fileName` is made first. GENERIC_WRITE alone is tried together
/// with GENERIC_READ (so that the file can be mapped) and, when that is refused, as asked.
///
/// A sharing violation is retried until the budget is used up, with INFINITE for ever; any other error at most 10
/// times. Every retry writes a "Retry" line, the end of a sequence a "Complete" line.
/// Last error: that of CreateFileW, 183 included, after a success at once or a failure; left alone after a success
/// that took retries.
QEL_API HANDLE CreateFileX(int line, const char* sourceFile, const wchar_t* fileName, DWORD desiredAccess,
                           DWORD shareMode, LPSECURITY_ATTRIBUTES sa, DWORD creationDisposition,
                           DWORD flagsAndAttributes, HANDLE templateFile, DWORD timeoutMs, DWORD intervalMs);

/// CopyFileW, retried, logged and reported as CreateFileX. Every attempt first makes the folders of both files.
QEL_API BOOL CopyFileX(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName,
                       BOOL failIfExists, DWORD timeoutMs, DWORD intervalMs);

/// DeleteFileW, retried while the budget lasts. A missing file gives FALSE at once, without a line and with the last
/// error of the search.
///
/// A failed attempt writes the one line of the call; then it sleeps and tries again, at least once, whatever the error
/// and without a limit of attempts, until the budget is used up. An interval of 0 takes 1 ms of the budget.
QEL_API BOOL DeleteFileX(int line, const char* sourceFile, const wchar_t* fileName, DWORD timeoutMs, DWORD intervalMs);
QEL_FUNCTIONS_END
