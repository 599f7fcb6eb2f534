/// @file
/// Mends a log file of which only a part of a line was written. The caller holds the mutex of the file.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// Ends the last line when it has no end: a writer that is killed inside the write leaves one so. Returns how many
/// bytes that took: 0, 1 or 2.
ULONGLONG EndCutLine(const wchar_t* path);

/// Takes away what a write of `text` that failed has left behind the first `sizeBefore` bytes. Nothing is changed when
/// anything else stands there: a program that does not know the mutex has written meanwhile, and its text stays.
void TakeBackPartOfLine(const wchar_t* path, ULONGLONG sizeBefore, const char* text);

}  // namespace qel
