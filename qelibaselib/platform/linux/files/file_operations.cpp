// Deleting and moving files; making and removing folders.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cwchar>
#include <optional>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/file_copy.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/files/sharing_gate.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr ShareMode kRemoval{kDeleting, kAllRights};

constexpr int kOpenForRemoval = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
constexpr int kTries = 100;

enum class NameResult {
  kDone,
  kNameMoved,  // the name leads to another file by now, so start over
};

// Takes the place of one who deletes or renames, and acts at the gate: nobody else takes the name away or gives it to
// another file in between. Closing the descriptor gives up the place.
template <class Act>
NameResult ActOnName(const SystemPath& path, int file, Act act, DWORD& error) {
  FileStatus status, named;
  error = ERROR_SUCCESS;
  if (const int number = ReadStatus(file, status)) error = ErrorFromErrno(number);
  SharePlace place;
  std::optional<SharingGate> gate(status.Key());
  if (!error && !status.IsFolder() && place.TakeAtGate(file, kRemoval) == SharePlace::Found::kConflict) {
    gate.reset();
    error = place.Take(file, kRemoval);
    gate.emplace(status.Key());
  }
  if (error) return NameResult::kDone;
  if (const int number = ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, named)) {
    error = PathError(number, path);
    return NameResult::kDone;
  }
  if (!named.SameFile(status)) return NameResult::kNameMoved;
  error = act(named, file);
  return NameResult::kDone;
}

// Runs `act(status, descriptor)` on the file that the name leads to. Links, and files that cannot be opened at all, are
// nobody's; they have no descriptor (-1).
template <class Act>
DWORD ActOnFile(const SystemPath& path, Act act) {
  for (int i = 0; i < kTries; ++i) {
    const Descriptor file(open(path.text(), kOpenForRemoval));
    const int openError = errno;
    DWORD error;
    if (file.get() >= 0) {
      if (ActOnName(path, file.get(), act, error) == NameResult::kDone) return error;
      continue;
    }
    if (openError != EACCES && openError != ELOOP && openError != ENXIO) return PathError(openError, path);
    FileStatus status;
    const int number = ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, status);
    return number ? PathError(number, path) : act(status, -1);
  }
  return ERROR_ACCESS_DENIED;
}

DWORD Delete(LPCWSTR name) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  const DWORD error = ActOnFile(path, [&](const FileStatus& status, int file) -> DWORD {
    if (status.IsFolder() || status.IsReadOnlyFile()) return ERROR_ACCESS_DENIED;
    if (path.EndsInSeparator()) return ERROR_INVALID_NAME;
    if (IsMappedElsewhere(file)) return ERROR_ACCESS_DENIED;
    return unlink(path.text()) == 0 ? ERROR_SUCCESS : PathError(errno, path);
  });
  return error == ERROR_FILE_NOT_FOUND && path.EndsInSeparator() ? path.SeparatorError() : error;
}

// Across file systems a file is copied and deleted. As on Windows a copy that succeeded is a success, also when the
// source cannot be removed. Nothing else can be copied as what it is, so it stays.
DWORD MoveAcross(const SystemPath& source, const SystemPath& target, const FileStatus& status) {
  if (!status.IsRegularFile()) return ERROR_NOT_SAME_DEVICE;
  const DWORD error = CopyFileByPath(source, target, true);
  if (!error) unlink(source.text());
  return error == ERROR_FILE_EXISTS ? ERROR_ALREADY_EXISTS : error;
}

// Within a file system a name changes at once, and none is replaced.
DWORD Rename(const SystemPath& source, const SystemPath& target, const FileStatus& status) {
  if (renameat2(AT_FDCWD, source.text(), AT_FDCWD, target.text(), RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
  const int error = errno;
  FileStatus unused;
  switch (error) {
    case EEXIST:
      return ERROR_ALREADY_EXISTS;
    case ENOENT:
      return ERROR_PATH_NOT_FOUND;  // the source was there a moment ago
    case EXDEV:
      return MoveAcross(source, target, status);
    case EINVAL:  // also of a file system that cannot be asked not to replace
      if (ReadStatus(AT_FDCWD, target.text(), AT_SYMLINK_NOFOLLOW, unused) == 0) return ERROR_ALREADY_EXISTS;
      return rename(source.text(), target.text()) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
    default:
      return ErrorFromErrno(error);
  }
}

// What is wrong with the source is told before what is wrong with the target.
DWORD Move(LPCWSTR existing, LPCWSTR newName) {
  SystemPath source, target;
  if (const DWORD error = source.Parse(existing)) return error;
  const DWORD targetError = target.Parse(newName);
  return ActOnFile(source, [&](const FileStatus& status, int) -> DWORD {
    if (!status.IsFolder() && source.EndsInSeparator()) return source.SeparatorError();
    if (targetError) return targetError;
    if (!status.IsFolder() && target.EndsInSeparator()) return target.SeparatorError();
    if (std::strcmp(source.text(), target.text()) == 0) return ERROR_SUCCESS;
    return Rename(source, target, status);
  });
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

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL DeleteFileW(LPCWSTR name) { return ReportResult(Delete(name)); }
BOOL MoveFileW(LPCWSTR existing, LPCWSTR target) { return ReportResult(Move(existing, target)); }
BOOL CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES) { return ReportResult(MakeFolder(name)); }
BOOL RemoveDirectoryW(LPCWSTR name) { return ReportResult(RemoveFolder(name)); }
