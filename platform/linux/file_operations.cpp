// Deleting and moving files; making and removing folders.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "platform/linux/error.h"
#include "platform/linux/file.h"
#include "platform/linux/file_attributes.h"
#include "platform/linux/file_copy.h"
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

// Within a file system a name changes at once, and none is replaced. Across file systems a file is copied.
DWORD Rename(const SystemPath& source, const SystemPath& target, const FileStatus& status) {
  if (renameat2(AT_FDCWD, source.text(), AT_FDCWD, target.text(), RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
  const int error = errno;
  if (error == EEXIST) return ERROR_ALREADY_EXISTS;
  if (error == ENOENT) return ERROR_PATH_NOT_FOUND;  // the source was there a moment ago
  FileStatus unused;
  if (error == EINVAL && ReadStatus(AT_FDCWD, target.text(), AT_SYMLINK_NOFOLLOW, unused) == 0)
    return ERROR_ALREADY_EXISTS;
  if (error == EINVAL)  // a file system that cannot be asked not to replace
    return rename(source.text(), target.text()) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
  if (error != EXDEV || status.IsFolder()) return ErrorFromErrno(error);
  const DWORD copied = CopyFileByPath(source, target, true);
  if (copied) return copied == ERROR_FILE_EXISTS ? ERROR_ALREADY_EXISTS : copied;
  return unlink(source.text()) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

DWORD Move(LPCWSTR existing, LPCWSTR newName) {
  SystemPath source, target;
  if (const DWORD error = source.Parse(existing)) return error;
  if (const DWORD error = target.Parse(newName)) return error;
  const Descriptor file(open(source.text(), kOpenForRemoval));
  FileStatus status;
  if (const DWORD error = EnterForRemoval(source, file, errno, status)) return error;
  if (!status.IsFolder() && source.EndsInSeparator()) return source.SeparatorError();
  if (!status.IsFolder() && target.EndsInSeparator()) return target.SeparatorError();
  if (std::strcmp(source.text(), target.text()) == 0) return ERROR_SUCCESS;
  return Rename(source, target, status);
}

DWORD MakeFolder(LPCWSTR name) {
  constexpr size_t kLongestFolder = 247;
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  if (std::wcslen(name) > kLongestFolder && std::wcsncmp(name, L"\\\\?\\", 4) != 0) return ERROR_FILENAME_EXCED_RANGE;
  if (mkdir(path.text(), 0777) == 0) return ERROR_SUCCESS;
  if (errno == EEXIST) return ERROR_ALREADY_EXISTS;
  return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
}

// Only the own process's current folder is known.
bool IsCurrentFolder(const FileStatus& folder) {
  FileStatus current;
  return ReadStatus(AT_FDCWD, ".", 0, current) == 0 && current.SameFile(folder);
}

DWORD RemoveFolder(LPCWSTR name) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  FileStatus status;
  if (const int error = ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, status)) return PathError(error, path);
  if (S_ISLNK(status.mode)) {  // of a link to a folder, the link
    FileStatus target;
    if (ReadStatus(AT_FDCWD, path.text(), 0, target) != 0 || !target.IsFolder()) return ERROR_DIRECTORY;
    return unlink(path.text()) == 0 ? ERROR_SUCCESS : PathError(errno, path);
  }
  if (!status.IsFolder()) return ERROR_DIRECTORY;
  if (AttributesOf(status, path.text()) & FILE_ATTRIBUTE_READONLY) return ERROR_ACCESS_DENIED;
  if (IsCurrentFolder(status)) return ERROR_SHARING_VIOLATION;
  if (rmdir(path.text()) == 0) return ERROR_SUCCESS;
  return errno == EEXIST ? ERROR_DIR_NOT_EMPTY : PathError(errno, path);
}

BOOL Finish(DWORD error) {
  if (error) SetLastError(error);
  return error == ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL DeleteFileW(LPCWSTR name) { return Finish(Delete(name)); }
BOOL MoveFileW(LPCWSTR existing, LPCWSTR target) { return Finish(Move(existing, target)); }
BOOL CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES) { return Finish(MakeFolder(name)); }
BOOL RemoveDirectoryW(LPCWSTR name) { return Finish(RemoveFolder(name)); }
