/// @file
/// Copy, compare and fill that probe both ends of each buffer first. A bad buffer is named in the memory-operation
/// channel and raises an access violation on purpose, so that the caller's guard and the exception report show where
/// it came from. Any thread may call; the probes are a snapshot.
#pragma once
#include "qelibaselib/base/export.h"
#include "qelibaselib/platform/win32.h"

/// What a buffer is used for; ChkMemAccess takes either and treats them alike.
#ifdef __cplusplus
inline constexpr int kMemoryDestination = 0;
inline constexpr int kMemorySource = 1;
#else
enum { kMemoryDestination = 0, kMemorySource = 1 };
#endif

QEL_FUNCTIONS_BEGIN
/// Non-zero when the first and the last byte of the buffer can be read, or when `size` is 0. A destination too is only
/// probed for reading, and nothing between the two bytes is.
QEL_API BOOL ChkMemAccess(const void* buffer, DWORD size, int direction);

/// Copies `size` bytes between buffers that do not overlap. Returns `destination`. On a bad buffer: logs, raises a
/// continuable EXCEPTION_ACCESS_VIOLATION with (destination, source, size); continued, it returns without copying. A
/// fault during the copy goes to the caller. The position is only for the log line.
QEL_API void* _MemCpy(void* destination, const void* source, DWORD size, int line, const char* sourceFile);

/// 0 when equal, 1 when the first differing byte, unsigned, is greater in `first`, -1 when it is smaller. On a bad
/// buffer as _MemCpy, with (first, second, size); continued, it returns -1.
QEL_API int _MemCmp(const void* first, const void* second, DWORD size, int line, const char* sourceFile);

/// Fills `size` bytes with the low byte of `value`. Returns `destination`. On a bad buffer as _MemCpy, with
/// (destination, value, size); continued, it returns without filling.
QEL_API void* _MemSet(void* destination, int value, DWORD size, int line, const char* sourceFile);
QEL_FUNCTIONS_END
