/// @file
/// Mappings and views. See qelibaselib/file/file.h for what holds for all. Sizes and offsets are two halves, the low
/// one first.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// CreateFileMappingW. Returns the mapping, to be closed with CloseHandle, or null. Tries up to 30 times, 100 ms apart,
/// whatever the error, with a "Retry" line for each failure.
/// Last error: that of CreateFileMappingW, 183 included, after a success at once or a failure; left alone after a
/// success that took retries.
QEL_API HANDLE CreateFileMappingX(int line, const char* sourceFile, HANDLE file, LPSECURITY_ATTRIBUTES sa,
                                  DWORD protect, DWORD maximumSizeLow, DWORD maximumSizeHigh, const wchar_t* name);

/// OpenFileMappingW, one attempt. Returns the mapping, to be closed with CloseHandle, or null.
QEL_API HANDLE OpenFileMappingX(int line, const char* sourceFile, DWORD desiredAccess, BOOL inheritHandle,
                                const wchar_t* name);

/// MapViewOfFile. Returns the view, to be given back with UnmapViewOfFileX, or null. Waits out a shortage of address
/// space (ERROR_NOT_ENOUGH_MEMORY), trying every 300 ms until `timeoutMs` has passed, with INFINITE for ever.
QEL_API void* MapViewOfFileX(int line, const char* sourceFile, HANDLE mapping, DWORD desiredAccess, DWORD fileOffsetLow,
                             DWORD fileOffsetHigh, SIZE_T bytesToMap, DWORD timeoutMs);

/// UnmapViewOfFile, one attempt. Any address inside the view will do.
QEL_API BOOL UnmapViewOfFileX(int line, const char* sourceFile, const void* baseAddress);
QEL_FUNCTIONS_END
