/// @file
/// The wrappers that make one attempt. See qelibaselib/file/file.h for what holds for all.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// ReadFile, the arguments as given. ERROR_IO_PENDING of an overlapped read is returned without a line.
QEL_API BOOL ReadFileX(int line, const char* sourceFile, HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead,
                       OVERLAPPED* overlapped);

/// WriteFile, the arguments as given. ERROR_IO_PENDING of an overlapped write is returned without a line. A write that
/// took fewer bytes than given is logged and still TRUE.
/// Without `overlapped` and when the no-cache decision says so, WriteFileMMF instead.
QEL_API BOOL WriteFileX(int line, const char* sourceFile, HANDLE file, const void* buffer, DWORD bytesToWrite,
                        DWORD* bytesWritten, OVERLAPPED* overlapped);

/// The size in bytes of a file by FindFirstFileW; 0 when it is not found. `*findData` is filled as that call does,
/// `*lastError` always gets the last error behind it, which is of use after a failure only. Writes no line and leaves
/// the last error alone.
QEL_API unsigned long long GetFileSizeX(const wchar_t* fileName, WIN32_FIND_DATAW* findData, DWORD* lastError);

/// MoveFileW. Makes the folder of the new name and deletes a file that has that name already.
QEL_API BOOL MoveFileX(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName);

/// GetTempFileNameW, the arguments as given. `tempFileName` takes 260 characters. 0 on failure.
QEL_API UINT GetTempFileNameX(int line, const char* sourceFile, const wchar_t* pathName, const wchar_t* prefixString,
                              UINT unique, wchar_t* tempFileName);
/// GetTempFileNameA, the same for narrow text.
QEL_API UINT GetTempFileNameTX(int line, const char* sourceFile, const char* pathName, const char* prefixString,
                               UINT unique, char* tempFileName);

/// SHCreateDirectoryExW: makes a folder and every missing folder above it. TRUE also when it is there already (last
/// error 183 or 80) and for a root, for which the system is not asked. The last error is the shell's code unless that
/// is 0.
QEL_API BOOL SHCreateDirectoryExX(int line, const char* sourceFile, const wchar_t* pathName);

/// Replaces, in place, every backslash of `path` by the first character of `replacement`.
QEL_API void ReplaceBackslashFromPath(wchar_t* path, const wchar_t* replacement);
QEL_FUNCTIONS_END
