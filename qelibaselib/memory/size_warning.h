/// @file
/// The warning about large requests, shared by allocation and copy.
#pragma once
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/win32.h"

namespace qel::memory {

/// Requests of more bytes are logged; 0 is off. Nothing in the library sets it.
extern DWORD sizeWarningLimit;

/// `format` takes the size as its one `%lu`.
inline void WarnOfSize(const char* format, DWORD size, SourcePosition position) {
  if (sizeWarningLimit != 0 && size > sizeWarningLimit) [[unlikely]]
    WriteLineF(channel::kMemoryAllocation, position, format, size);
}

}  // namespace qel::memory
