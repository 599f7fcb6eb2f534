#include "qelibaselib/platform/linux/objects/object_file_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/own_mode.h"

namespace qel::layer {
namespace {

constexpr int kMostStarts = 1000;
constexpr mode_t kFileMode = 0600;

class FileName {
 public:
  explicit FileName(const ObjectKey& key) { FormatObjectFileName(key, text_); }
  operator const char*() const { return text_; }  // NOLINT: it is one

 private:
  char text_[kObjectFileNameSize];
};

// The umask may take rights from a file that is created, so that nobody could open it again.
int OpenOrRepair(int folder, const char* fileName, bool create) {
  const int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0);
  const int file = openat(folder, fileName, flags, kFileMode);
  if (file >= 0 || errno != EACCES) return file;
  if (!RestoreOwnMode(folder, fileName, geteuid(), S_IFREG, kFileMode)) {
    errno = EACCES;
    return -1;
  }
  return openat(folder, fileName, flags, kFileMode);
}

}  // namespace

int ObjectFilePlace::OpenFile(bool create, DWORD* error) const {
  const FileName fileName(key_);
  for (int start = 0; start < kMostStarts; ++start) {
    const int folder = folder_.Open(key_.user, error);
    if (folder < 0) return -1;
    Descriptor file(OpenOrRepair(folder, fileName, create));
    if (file.get() >= 0 && IsOwnFile(file.get(), key_.user)) return file.Detach();
    *error = file.get() >= 0 ? ERROR_ACCESS_DENIED : ErrorFromErrno(errno);
    // Only a removed folder is worth another look.
    if (*error != ERROR_FILE_NOT_FOUND || !folder_.ForgetIfRemoved()) return -1;
  }
  return -1;
}

void ObjectFilePlace::UnlinkFile(int file) const {
  DWORD ignored;
  qel::layer::UnlinkFile(folder_.Open(key_.user, &ignored), file, FileName(key_));
}

void ObjectFilePlace::LeaveFile(int file) const {
  DWORD ignored;
  qel::layer::LeaveFile(folder_.Open(key_.user, &ignored), file, FileName(key_));
}

}  // namespace qel::layer
