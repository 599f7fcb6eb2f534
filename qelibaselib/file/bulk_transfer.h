/// @file
/// Large blocks between memory and files, through one mapped view of at most 16 MiB at a time. See
/// qelibaselib/file/file.h for what holds for all.
///
/// `shortageThreshold` is a memory load in percent: while IsPhysMemShortage reports a shortage for it, each view is
/// flushed before it is unmapped. A negative one never flushes.
///
/// What was written before a failure stays in the target, which has its full size by then. Each failing step writes an
/// assertion line besides the lines of the wrappers. There is no mapping of an empty file, so nothing but Mem2File can
/// make one.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// Writes at a position, -1 for the end of the file, which grows as needed. `file` must be open for reading and
/// writing.
/// `*bytesWritten` counts what was copied, also on failure; `reserved` is only printed. The file pointer then stands
/// behind the data, as after a WriteFile.
QEL_API BOOL WriteFileMMF2(int line, const char* sourceFile, HANDLE file, const void* buffer, unsigned long long size,
                           unsigned long long* bytesWritten, void* reserved, long long offset, int shortageThreshold);

/// WriteFileMMF2 at the file pointer. `*bytesWritten` is left alone when the file pointer cannot be read.
QEL_API BOOL WriteFileMMF(int line, const char* sourceFile, HANDLE file, const void* buffer, DWORD size,
                          DWORD* bytesWritten, void* reserved, int shortageThreshold);

/// Makes a file, or replaces one, that holds exactly the buffer. `size` 0 fails.
QEL_API BOOL Mem2FileMMF(int line, const char* sourceFile, const void* buffer, DWORD size, const wchar_t* fileName,
                         int shortageThreshold);

/// The same with one WriteFileX instead of views. When only the write fails, the last error is set to 0.
QEL_API BOOL Mem2File(int line, const char* sourceFile, const void* buffer, DWORD size, const wchar_t* fileName);

/// Copies a file through views of the target and, when `mapSource`, of the source; otherwise the source is read into a
/// buffer of one chunk. An empty source fails.
QEL_API BOOL CopyFileMMF(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName,
                         BOOL failIfExists, int shortageThreshold, BOOL mapSource);
QEL_FUNCTIONS_END
