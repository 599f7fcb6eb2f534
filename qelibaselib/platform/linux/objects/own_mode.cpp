#include "qelibaselib/platform/linux/objects/own_mode.h"

#include <fcntl.h>

#include <charconv>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"

namespace qel::layer {
namespace {

constexpr mode_t kPermissions = 07777 & ~(S_ISGID | S_ISVTX);  // a folder may inherit the other two

// Through the descriptor, so that it concerns what was looked at: the name may lead elsewhere by now. A descriptor that
// only stands for a path cannot be changed directly.
bool ChangeMode(int pathDescriptor, mode_t mode) {
  char link[32] = "/proc/self/fd/";
  char* const digits = link + std::strlen(link);
  *std::to_chars(digits, link + sizeof link - 1, pathDescriptor).ptr = 0;
  return chmod(link, mode) == 0;
}

}  // namespace

bool RestoreOwnMode(int folder, const char* name, uid_t user, mode_t type, mode_t mode) {
  const Descriptor path(openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (path.get() < 0 || fstat(path.get(), &status) != 0) return false;
  if (status.st_uid != user || (status.st_mode & S_IFMT) != type || (status.st_mode & kPermissions & ~mode) != 0)
    return false;
  return (status.st_mode & kPermissions) == mode || ChangeMode(path.get(), mode);
}

}  // namespace qel::layer
