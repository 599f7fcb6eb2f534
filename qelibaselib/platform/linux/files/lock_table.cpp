#include "qelibaselib/platform/linux/files/lock_table.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <limits>

#include "qelibaselib/platform/linux/base/small_file.h"

namespace qel::layer {
namespace {

// The line of a text that begins at `at`, which moves on to the next one. Empty at the end.
std::string TakeLine(const std::string& text, size_t& at) {
  const size_t end = text.find('\n', at);
  std::string line = text.substr(at, end == std::string::npos ? end : end - at);
  at = end == std::string::npos ? text.size() : end + 1;
  return line;
}

// The number behind a name such as "ino:" at the beginning of a line.
bool ReadField(const std::string& text, const char* format, unsigned long long* value) {
  for (size_t at = 0; at < text.size();)
    if (std::sscanf(TakeLine(text, at).c_str(), format, value) == 1) return true;
  return false;
}

}  // namespace

bool LockTable::Identify(int descriptor, KernelFile* file) {
  char name[40];
  std::snprintf(name, sizeof name, "/proc/self/fdinfo/%d", descriptor);
  const std::string information = ReadSystemFile(name);
  unsigned long long mount = 0;
  struct stat status;
  if (!ReadField(information, "mnt_id: %llu", &mount) || fstat(descriptor, &status) != 0) return false;
  if (!ReadField(information, "ino: %llu", &file->node)) file->node = status.st_ino;  // an older kernel
  const std::string mounts = ReadSystemFile("/proc/self/mountinfo");
  for (size_t at = 0; at < mounts.size();) {
    unsigned long long number = 0;
    const std::string line = TakeLine(mounts, at);
    if (std::sscanf(line.c_str(), "%llu %*u %u:%u", &number, &file->major, &file->minor) == 3 && number == mount)
      return true;
  }
  // After chroot the mount may lie outside of the root, where it is not listed.
  file->major = major(status.st_dev);
  file->minor = minor(status.st_dev);
  return true;
}

LockTable::LockTable(int descriptor) {
  if (Identify(descriptor, &file_)) text_ = ReadSystemFile("/proc/locks");
}

bool LockTable::Next(ListedLock* lock) {
  while (at_ < text_.size()) {
    KernelFile file = {};
    long long first = 0, last = 0;
    const int fields = std::sscanf(TakeLine(text_, at_).c_str(), "%*d: OFDLCK %*s %*s %*d %x:%x:%llu %lld %lld",
                                   &file.major, &file.minor, &file.node, &first, &last);
    if (fields < 4 || file.major != file_.major || file.minor != file_.minor || file.node != file_.node) continue;
    *lock = {first, fields == 5 ? last : std::numeric_limits<off_t>::max()};
    return true;
  }
  return false;
}

}  // namespace qel::layer
