#include "qelibaselib/platform/linux/files/open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"

namespace qel::layer {
namespace {

constexpr int kTries = 100;

bool Empties(DWORD disposition) { return disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING; }
bool Makes(DWORD disposition) { return disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS; }

// With O_NONBLOCK no open waits for the other end of a pipe.
int FlagsFor(const FileRequest& request) {
  const bool writes = (request.mode.access & kWriting) || Empties(request.disposition);
  return (writes ? O_RDWR : O_RDONLY) | (request.writesThrough ? O_DSYNC : 0) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

// A server of a network file system may be interrupted. The numbers of the standard streams stay the host's.
int OpenDescriptorOf(const SystemPath& path, int flags, mode_t permissions = 0) {
  return MoveBehindStandard(RetryOnInterrupt([&] { return open(path.text(), flags, permissions); }));
}

using PathBuffer = char[PATH_MAX];

// Puts what a link leads to in the place of its name. False when there is no link of that name.
bool ReplaceLinkByTarget(PathBuffer& name) {
  PathBuffer target;
  const ssize_t length = readlink(name, target, sizeof target);
  if (length < 0) return false;
  const char* const separator = std::strrchr(name, '/');
  const size_t folder = separator && target[0] != '/' ? separator + 1 - name : 0;
  if (folder + length >= sizeof name) return false;
  std::memcpy(name + folder, target, length);
  name[folder + length] = 0;
  return true;
}

// Makes the file that a dangling link leads to. O_EXCL follows no link, and without it nobody could tell whether the
// file was there. -1 with errno EEXIST when it is there by now.
int MakeBehindLink(const SystemPath& path, int flags, mode_t permissions) {
  constexpr int kMostLinks = 40;
  PathBuffer name = "";
  if (std::strlen(path.text()) < sizeof name) std::strcpy(name, path.text());
  for (int i = 0; i < kMostLinks && ReplaceLinkByTarget(name); ++i) {
    const int made = RetryOnInterrupt([&] { return open(name, flags | O_CREAT | O_EXCL, permissions); });
    if (made >= 0 || errno != EEXIST) return MoveBehindStandard(made);
  }
  errno = EEXIST;
  return -1;
}

bool IsFolder(const SystemPath& path) {
  FileStatus status;
  return ReadStatusOfName(path.text(), status) == 0 && status.IsFolder();
}

// ENXIO is the answer for a socket and for a device without a driver.
DWORD ErrorOfExisting(int number, const SystemPath& path, const FileRequest& request) {
  return number == ENXIO && !request.special ? ERROR_NOT_SUPPORTED : PathError(number, path);
}

}  // namespace

OpenedFile::OpenedFile(OpenedFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      existed_(other.existed_),
      rangesLocked_(other.rangesLocked_),
      access_(other.access_),
      place_(std::move(other.place_)),
      status_(other.status_) {}

OpenedFile::~OpenedFile() { Close(); }

void OpenedFile::Close() {
  if (descriptor_ < 0) return;
  place_.Leave(descriptor_);
  if (closes_) CloseDescriptor(descriptor_);
  descriptor_ = -1;
}

DWORD OpenedFile::Open(const SystemPath& path, const FileRequest& request) {
  for (int i = 0; i < kTries; ++i) {
    DWORD error = OpenDescriptor(path, request);
    OpenResult result = error ? OpenResult::kFailed : OpenResult::kOpened;
    if (!error) result = Enter(request, error);
    if (result == OpenResult::kOpened) return ERROR_SUCCESS;
    Close();
    if (result == OpenResult::kFailed) return error;
  }
  return ERROR_ACCESS_DENIED;
}

// Opens for reading too where only writing is asked for, because a share mode needs a descriptor that reads. A file
// that the user may only write, or only ask about, is opened as far as the user may.
int OpenedFile::OpenExisting(const SystemPath& path, const FileRequest& request) const {
  const int flags = FlagsFor(request);
  const int descriptor = OpenDescriptorOf(path, flags);
  if (descriptor >= 0) return descriptor;
  if (errno == EACCES && !(request.mode.access & kReading) && (flags & O_ACCMODE) == O_RDWR)
    return OpenDescriptorOf(path, (flags & ~O_ACCMODE) | O_WRONLY);
  if (errno == EACCES && request.mode.access == 0) return OpenDescriptorOf(path, O_PATH | O_CLOEXEC);
  if (errno == EISDIR && request.folders && !Empties(request.disposition))
    return OpenDescriptorOf(path, (flags & ~O_ACCMODE) | O_RDONLY);
  return descriptor;
}

DWORD OpenedFile::OpenDescriptor(const SystemPath& path, const FileRequest& request) {
  existed_ = true;
  // CREATE_ALWAYS usually finds no file and OPEN_ALWAYS usually finds one, so each saves a call that fails.
  const bool makesFirst = request.disposition == CREATE_NEW || request.disposition == CREATE_ALWAYS;
  if (!makesFirst) {
    descriptor_ = OpenExisting(path, request);
    if (descriptor_ >= 0) return ERROR_SUCCESS;
    if (errno != ENOENT || !Makes(request.disposition)) return ErrorOfExisting(errno, path, request);
  }
  const bool readOnly = (request.attributes & FILE_ATTRIBUTE_READONLY) != 0;
  const mode_t permissions = request.permissions & ~(readOnly ? kWriteBits : 0);
  descriptor_ = OpenDescriptorOf(path, FlagsFor(request) | O_CREAT | O_EXCL, permissions);
  if (descriptor_ >= 0) {
    existed_ = false;
    return ERROR_SUCCESS;
  }
  if (errno != EEXIST) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
  if (request.disposition == CREATE_NEW)
    return !request.source && IsFolder(path) ? ERROR_ACCESS_DENIED : ERROR_FILE_EXISTS;
  if (makesFirst) {
    descriptor_ = OpenExisting(path, request);
    if (descriptor_ >= 0) return ERROR_SUCCESS;
    if (errno != ENOENT) return ErrorOfExisting(errno, path, request);
  }
  descriptor_ = MakeBehindLink(path, FlagsFor(request), permissions);
  existed_ = descriptor_ < 0;
  if (!existed_) return ERROR_SUCCESS;
  if (errno != EEXIST) return PathError(errno, path);
  // Another process made or removed it a moment ago.
  descriptor_ = OpenDescriptorOf(path, FlagsFor(request) | O_CREAT, permissions);
  return descriptor_ >= 0 ? ERROR_SUCCESS : PathError(errno, path);
}

// Takes the place among the other opens of the file, then looks at the file, which nobody can take away from then on.
OpenedFile::OpenResult OpenedFile::Enter(const FileRequest& request, DWORD& error) {
  access_ = request.mode.access;
  if (access_ != 0 && request.shared) {
    error = place_.Take(descriptor_, request.mode, !existed_, &rangesLocked_);
    if (error) return OpenResult::kFailed;
  }
  // If another process deletes the new file before we copy into it, the result is the same as deleting the finished
  // copy, so no check is needed here.
  if (request.source && !existed_) return OpenResult::kOpened;
  if (const int number = ReadStatus(descriptor_, status_)) {
    error = ErrorFromErrno(number);
    return OpenResult::kFailed;
  }
  if (status_.links == 0) return OpenResult::kRaceRetry;
  if (existed_) error = CheckExisting(request);
  // Only a pipe or a terminal notices that it was opened without waiting.
  if (!error && status_.IsSpecial() && access_) fcntl(descriptor_, F_SETFL, 0);
  if (!error) error = SetContentsAndAttributes(request);
  return error ? OpenResult::kFailed : OpenResult::kOpened;
}

DWORD OpenedFile::CheckExisting(const FileRequest& request) const {
  if (request.source && status_.SameFile(*request.source)) return ERROR_SHARING_VIOLATION;
  if (status_.IsSpecial() && !request.special) return ERROR_NOT_SUPPORTED;
  if (status_.IsFolder()) return request.folders ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
  const bool changes = (request.mode.access & kWriting) || Empties(request.disposition) || request.deletes;
  if (status_.IsReadOnlyFile() && changes) return ERROR_ACCESS_DENIED;
  if (request.disposition != CREATE_ALWAYS) return ERROR_SUCCESS;
  constexpr DWORD kMustBeGiven = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  return AttributesOf(status_, descriptor_) & kMustBeGiven & ~request.attributes ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

DWORD OpenedFile::SetContentsAndAttributes(const FileRequest& request) {
  if (existed_ && !Empties(request.disposition)) return ERROR_SUCCESS;
  if (existed_ && status_.size > 0)
    if (const DWORD error = CutUnmappedFile(descriptor_, 0)) return error;
  if (request.disposition == TRUNCATE_EXISTING || request.source) return ERROR_SUCCESS;
  constexpr DWORD kUsual = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL;
  const bool special = (request.attributes & ~kUsual) || (existed_ && (status_.mode & S_ISVTX));
  if (!special || (!existed_ && !(request.attributes & ~kUsual & ~FILE_ATTRIBUTE_READONLY))) return ERROR_SUCCESS;
  const int error = WriteAttributes(descriptor_, status_, request.attributes | FILE_ATTRIBUTE_ARCHIVE);
  // Who may write a file of another owner may empty it, and its mode stays.
  return error == 0 || (existed_ && error == EPERM) ? ERROR_SUCCESS : ErrorFromErrno(error);
}

DWORD GrowFile(int descriptor, off_t from, off_t to) {
  const FileGrowth growth;
  if (RetryOnInterrupt([&] { return fallocate(descriptor, 0, from, to - from); }) == 0) return ERROR_SUCCESS;
  if ((errno == EOPNOTSUPP || errno == ENOSYS) && ftruncate(descriptor, to) == 0) return ERROR_SUCCESS;
  return ErrorFromErrno(errno);
}

}  // namespace qel::layer
