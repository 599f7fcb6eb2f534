#include "qelibaselib/platform/linux/files/file_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/files/open_file.h"
#include "qelibaselib/platform/linux/files/sharing_gate.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr size_t kLargestPart = 1u << 30;
constexpr size_t kBufferSize = 256 * 1024;

bool CannotCopyInKernel(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

DWORD WriteAll(int to, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = RetryOnInterrupt([&] { return write(to, data, length); });
    if (written < 0) return ErrorFromErrno(errno);
    data += written;
    length -= static_cast<size_t>(written);
  }
  return ERROR_SUCCESS;
}

DWORD CopyThroughBuffer(int from, int to, unsigned long long length) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]);
  if (!buffer) return ERROR_NOT_ENOUGH_MEMORY;
  while (length > 0) {
    const auto part = static_cast<size_t>(std::min<unsigned long long>(length, kBufferSize));
    const ssize_t got = RetryOnInterrupt([&] { return read(from, buffer.get(), part); });
    if (got <= 0) return got == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
    if (const DWORD error = WriteAll(to, buffer.get(), static_cast<size_t>(got))) return error;
    length -= static_cast<unsigned long long>(got);
  }
  return ERROR_SUCCESS;
}

// Copies at most `length` bytes from position to position. The kernel does it as far as it can, a buffer does the rest.
DWORD CopyBytes(int from, int to, unsigned long long length) {
  while (length > 0) {
    const auto part = static_cast<size_t>(std::min<unsigned long long>(length, kLargestPart));
    const ssize_t copied = RetryOnInterrupt([&] { return copy_file_range(from, nullptr, to, nullptr, part, 0); });
    // Files of the kernel have contents that copying in the kernel does not find.
    if (copied == 0 || (copied < 0 && CannotCopyInKernel(errno))) return CopyThroughBuffer(from, to, length);
    if (copied < 0) return ErrorFromErrno(errno);
    length -= static_cast<unsigned long long>(copied);
  }
  return ERROR_SUCCESS;
}

// Copies what has blocks on the disk and leaves the holes in between. The target is empty before.
DWORD CopyAroundHoles(int from, int to, off_t size) {
  for (off_t at = 0; at < size;) {
    const off_t data = lseek(from, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // nothing but a hole follows
    if (data < 0 && errno == EINVAL) return CopyBytes(from, to, static_cast<unsigned long long>(size - at));
    if (data < 0) return ErrorFromErrno(errno);
    const off_t hole = lseek(from, data, SEEK_HOLE);
    if (hole < 0 || lseek(from, data, SEEK_SET) < 0 || lseek(to, data, SEEK_SET) < 0) return ErrorFromErrno(errno);
    if (const DWORD error = CopyBytes(from, to, static_cast<unsigned long long>(hole - data))) return error;
    if (lseek(to, 0, SEEK_CUR) < hole) return ERROR_SUCCESS;  // a file of the kernel, shorter than it says
    at = hole;
  }
  return ftruncate(to, size) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

// Some files of the kernel have a size of 0 and contents all the same.
DWORD CopyContents(const OpenedFile& source, const OpenedFile& target) {
  const FileGrowth growth;
  const int from = source.descriptor(), to = target.descriptor();
  const FileStatus& status = source.status();
  if (status.size == 0) return CopyThroughBuffer(from, to, ULLONG_MAX);
  if (status.HasHoles()) return CopyAroundHoles(from, to, static_cast<off_t>(status.size));
  return CopyBytes(from, to, status.size);
}

// Who may write a file of another owner may not change its mode and times, and some file systems keep neither.
DWORD ErrorUnlessForbidden(int number) {
  const bool forbidden = number == EPERM || number == EACCES || number == ENOTSUP;
  return number == 0 || forbidden ? ERROR_SUCCESS : ErrorFromErrno(number);
}

// A file with several names keeps its attributes, because a part of them is the mode, which all its names share.
DWORD CopyAttributes(DWORD attributes, const OpenedFile& target) {
  FileStatus status;
  if (const int error = ReadStatus(target.descriptor(), status)) return ErrorFromErrno(error);
  if (status.links > 1 || attributes == AttributesOf(status, target.descriptor())) return ERROR_SUCCESS;
  return ErrorUnlessForbidden(WriteAttributes(target.descriptor(), status, attributes));
}

// Write time and attributes become those of the source. A new file has ARCHIVE alone, as most sources have.
DWORD CopyProperties(const OpenedFile& source, const OpenedFile& target) {
  const DWORD attributes = AttributesOf(source.status(), source.descriptor());
  if (target.existed() || attributes != FILE_ATTRIBUTE_ARCHIVE)
    if (const DWORD error = CopyAttributes(attributes, target)) return error;
  const timespec changes[] = {{0, UTIME_OMIT}, source.status().writtenExactly};
  return ErrorUnlessForbidden(futimens(target.descriptor(), changes) == 0 ? 0 : errno);
}

bool SameName(const FileStatus& source, const SystemPath& target) {
  FileStatus existing;
  return ReadStatus(AT_FDCWD, target.text(), 0, existing) == 0 && existing.SameFile(source);
}

// Finds a lock that another handle has on a part of the source.
DWORD CheckLockedRanges(const OpenedFile& source) {
  if (!source.rangesLocked()) return ERROR_SUCCESS;
  const auto size = static_cast<off_t>(source.status().size);
  return CheckRange(source.descriptor(), 0, size > 0 ? size : 1, false);
}

bool RemoveWhileNamed(const SystemPath& path, const OpenedFile& target) {
  const SharingGate gate(KeyOf(target.descriptor()));
  FileStatus made, named;
  return ReadStatus(target.descriptor(), made) == 0 &&
         ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, named) == 0 && named.SameFile(made) &&
         unlink(path.text()) == 0;
}

// A target that was there before keeps its name and loses its contents, since a part of the copy could pass for the
// whole. One that this copy made is removed while the name still leads to it; a link never does.
void TakeBack(const SystemPath& path, const OpenedFile& target) {
  if (target.existed() || !RemoveWhileNamed(path, target)) CutUnmappedFile(target.descriptor(), 0);
}

}  // namespace

DWORD CopyFileByPath(const SystemPath& sourcePath, const SystemPath& targetPath, bool failIfExists) {
  OpenedFile source, target;
  FileRequest request{{kReading, kAllRights}, OPEN_EXISTING};
  request.special = false;
  if (const DWORD error = source.Open(sourcePath, request)) return error;
  if (const DWORD error = CheckLockedRanges(source)) return error;
  request.mode = {kWriting, kReading};
  request.disposition = failIfExists ? CREATE_NEW : CREATE_ALWAYS;
  request.permissions = (source.status().mode & 0777) | S_IWUSR;
  request.source = &source.status();
  DWORD error = target.Open(targetPath, request);
  if (error == ERROR_SHARING_VIOLATION) {  // one who writes into the target, or maps it for that, and shares writing
    request.mode.share |= kWriting;
    error = target.Open(targetPath, request);
  }
  if (error) return !failIfExists && SameName(source.status(), targetPath) ? ERROR_SHARING_VIOLATION : error;
  error = CopyContents(source, target);
  if (!error) error = CopyProperties(source, target);
  if (error) TakeBack(targetPath, target);
  return error;
}

namespace {

// What is wrong with the source counts before what is wrong with the target.
DWORD Copy(const SystemPath& source, LPCWSTR targetName, bool failIfExists) {
  SystemPath target;
  const DWORD targetError = target.ParseFile(targetName);
  if (!targetError) return CopyFileByPath(source, target, failIfExists);
  OpenedFile opened;
  FileRequest request{{kReading, kAllRights}, OPEN_EXISTING};
  request.special = false;
  const DWORD error = opened.Open(source, request);
  return error ? error : targetError;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL CopyFileW(LPCWSTR existing, LPCWSTR target, BOOL failIfExists) {
  SystemPath from;
  DWORD error = from.ParseFile(existing);
  if (!error) error = Copy(from, target, failIfExists != FALSE);
  SetLastError(error);
  return error == ERROR_SUCCESS;
}
