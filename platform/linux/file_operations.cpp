// Deleting, moving and copying files; making and removing folders.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/error.h"
#include "platform/linux/file.h"
#include "platform/linux/file_attributes.h"
#include "platform/linux/file_sharing.h"
#include "platform/linux/path.h"

namespace qel::layer {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (value_ >= 0) close(value_);
  }
  int get() const { return value_; }
  bool IsOpen() const { return value_ >= 0; }

 private:
  int value_;
};

constexpr ShareMode kRemoval{kDeleting, kAllRights};

// Takes the place of one who deletes or renames the file, as long as `file` lives. Links, and files that cannot be
// opened at all, are nobody's.
DWORD EnterForRemoval(const SystemPath& path, const Descriptor& file, int openError, FileStatus& status) {
  if (!file.IsOpen()) {
    if (openError != EACCES && openError != ELOOP && openError != ENXIO) return PathError(openError, path);
    const int error = ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, status);
    return error ? PathError(error, path) : ERROR_SUCCESS;
  }
  if (const int error = ReadStatus(file.get(), status)) return ErrorFromErrno(error);
  return status.IsFolder() ? ERROR_SUCCESS : EnterSharing(file.get(), kRemoval);
}

constexpr int kOpenForRemoval = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

DWORD Delete(LPCWSTR name) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  const Descriptor file(open(path.text(), kOpenForRemoval));
  FileStatus status;
  const DWORD error = EnterForRemoval(path, file, errno, status);
  if (path.EndsInSeparator() && (error || !status.IsFolder())) return path.SeparatorError();
  if (error) return error;
  if (status.IsFolder() || status.IsReadOnlyFile()) return ERROR_ACCESS_DENIED;
  return unlink(path.text()) == 0 ? ERROR_SUCCESS : PathError(errno, path);
}

BOOL Finish(DWORD error) {
  if (error) SetLastError(error);
  return error == ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL DeleteFileW(LPCWSTR name) { return Finish(Delete(name)); }
