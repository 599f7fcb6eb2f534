/// @file
/// Flushing of views and of whole files. See qelibaselib/file/file.h for what holds for all.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// FlushViewOfFile, with retries. `bytesToFlush` 0 is all of the view behind `baseAddress`. `file` is the file of the
/// view, which only the no-cache decision looks at; INVALID_HANDLE_VALUE flushes
/// in any case.
///
/// A lock violation is retried up to 100 times, 30 ms apart. Failures, retried successes and every flush that took
/// longer than any before it in the process are written to the flush channel, with the time in milliseconds. Every
/// call, a failed one too, is added to the flush statistics of the thread (VemoGetFVOFInf).
QEL_API BOOL FlushViewOfFileX(int line, const char* sourceFile, const void* baseAddress, SIZE_T bytesToFlush,
                              HANDLE file);

/// Flushes all of an open file through views. `allowSkip` leaves it to the no-cache decision whether a view is flushed.
/// FALSE, with the last error, only when the size of the file cannot be read. A mapping or view that cannot be had, and
/// so any empty file, is TRUE: only the assertion line and the lines of the wrappers tell of it.
QEL_API BOOL FlushMMF(int line, const char* sourceFile, HANDLE file, BOOL allowSkip);

/// FlushMMF for a path. FALSE when the file cannot be opened for reading and writing within 10 s. The caller's position
/// is not used: the lines name the place in the library.
QEL_API BOOL FlushMMF2(int line, const char* sourceFile, const wchar_t* fileName, BOOL allowSkip);
QEL_FUNCTIONS_END
