/// @file
/// The names in a folder, without memory from the heap: it is read where memory may be out.
#pragma once
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "qelibaselib/platform/linux/base/descriptor.h"

namespace qel::layer {

/// Calls `use(name)` for each entry but those that begin with a dot, until it answers false. False when the folder
/// could not be read to its end or `use` did not want that.
template <class Use>
bool ForEachEntry(int folder, Use use) {
  const Descriptor again(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (again.get() < 0) return false;
  alignas(dirent64) char buffer[4096];
  for (;;) {
    const long bytes = syscall(SYS_getdents64, again.get(), buffer, sizeof buffer);
    if (bytes <= 0) return bytes == 0;
    for (long at = 0; at < bytes;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      if (entry->d_name[0] != '.' && !use(entry->d_name)) return false;
    }
  }
}

}  // namespace qel::layer
