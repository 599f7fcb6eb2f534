/// @file
/// Reads this process's memory map from the kernel.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

/// Calls `take(line)` for each line, in rising order, until it answers false. Needs no memory but the stack.
template <class Take>
DWORD ReadMemoryMap(Take&& take) {
  constexpr size_t kBufferBytes = 16384;  // more than three times the longest line
  const int descriptor = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return ErrorFromErrno(errno);
  char buffer[kBufferBytes];
  size_t kept = 0;
  DWORD error = ERROR_SUCCESS;
  for (bool more = true; more;) {
    const ssize_t got = read(descriptor, buffer + kept, sizeof buffer - kept);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error = ErrorFromErrno(errno);
    if (got <= 0) break;
    LineCutter cutter({buffer, kept + got});
    MapLine parsed;
    for (std::string_view line; more && cutter.Next(&line);)
      if (ParseMapLine(line, &parsed)) more = take(parsed);
    kept = cutter.Rest().size();
    std::memmove(buffer, cutter.Rest().data(), kept);
  }
  close(descriptor);
  return error;
}

}  // namespace qel::layer
