/// @file
/// Creation of events, mutexes and semaphores, with a line in the log for each failure.
///
/// Each function passes its arguments to the system's call and returns the system's handle, which the caller closes.
/// A failure gives null and a line in "VemoWinApiWrap_7EFEA029.txt" with the caller's position; the last error is the
/// system's own either way, so ERROR_ALREADY_EXISTS after a success tells an object that was there. `name` may be null.
/// All may be called from any thread.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// CreateEventW, one attempt.
QEL_API HANDLE CreateEventX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, BOOL manualReset,
                            BOOL initialState, const wchar_t* name);

/// CreateMutexW, one attempt.
QEL_API HANDLE CreateMutexX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, BOOL initialOwner,
                            const wchar_t* name);

/// CreateSemaphoreW, one attempt.
QEL_API HANDLE CreateSemaphoreX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, LONG initialCount,
                                LONG maximumCount, const wchar_t* name);

QEL_FUNCTIONS_END
