/// @file
/// Whether small files are written and flushed past the usual way while memory is plentiful.
///
/// A dormant switch: nothing in the library turns it on, so that every write is a WriteFile and every flush is done. A
/// test links this folder's objects and sets it.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::no_cache {

extern bool enabled;

bool DecideForWrite(HANDLE file, DWORD bytesToWrite);
bool DecideForFlush(HANDLE file);

/// Yes when `bytesToWrite` more bytes at the file pointer keep the file below the size limit of
/// VemoSetNoCacheFlushLimit and the memory load is below its other limit.
inline bool AppliesToWrite(HANDLE file, DWORD bytesToWrite) { return enabled && DecideForWrite(file, bytesToWrite); }

/// The same of a file as it is; no for INVALID_HANDLE_VALUE.
inline bool AppliesToFlush(HANDLE file) { return enabled && DecideForFlush(file); }

}  // namespace qel::no_cache
