#include "qelibaselib/platform/linux/files/file_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/open_file.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr size_t kLargestPart = 1u << 30;
constexpr size_t kBufferSize = 256 * 1024;

bool CannotCopyInKernel(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

DWORD CopyThroughBuffer(int from, int to) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]);
  if (!buffer) return ERROR_NOT_ENOUGH_MEMORY;
  for (;;) {
    const ssize_t got = read(from, buffer.get(), kBufferSize);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = write(to, buffer.get() + done, static_cast<size_t>(got - done));
      if (written < 0 && errno != EINTR) return ErrorFromErrno(errno);
      if (written > 0) done += written;
    }
  }
}

// In the kernel as far as that goes, the rest through a buffer: both sides keep their positions. Some special files
// have a size of 0 and contents all the same; the kernel copies nothing of them.
DWORD CopyContents(int from, int to, unsigned long long size) {
  for (unsigned long long done = 0; size == 0 || done < size;) {
    const ssize_t copied = copy_file_range(from, nullptr, to, nullptr, kLargestPart, 0);
    if (copied > 0) done += static_cast<unsigned long long>(copied);
    if (copied > 0 || (copied < 0 && errno == EINTR)) continue;
    if (copied == 0) return done ? ERROR_SUCCESS : CopyThroughBuffer(from, to);
    return CannotCopyInKernel(errno) ? CopyThroughBuffer(from, to) : ErrorFromErrno(errno);
  }
  return ERROR_SUCCESS;
}

// Write time and attributes become those of the source. A new file has ARCHIVE alone, as most have.
DWORD CopyProperties(const FileStatus& source, int from, const OpenedFile& target) {
  const DWORD attributes = AttributesOf(source, from);
  if (target.existed() || attributes != FILE_ATTRIBUTE_ARCHIVE) {
    FileStatus status;
    int error = ReadStatus(target.descriptor(), status);
    if (!error && attributes != AttributesOf(status, target.descriptor()))
      error = WriteAttributes(target.descriptor(), status, attributes);
    if (error) return ErrorFromErrno(error);
  }
  const timespec changes[] = {{0, UTIME_OMIT}, source.writtenExactly};
  return futimens(target.descriptor(), changes) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

bool SameName(const FileStatus& source, const SystemPath& target) {
  FileStatus existing;
  return ReadStatus(AT_FDCWD, target.text(), 0, existing) == 0 && existing.SameFile(source);
}

DWORD CopyInto(const OpenedFile& source, const OpenedFile& target) {
  const off_t all = static_cast<off_t>(source.status().size);
  if (source.rangesLocked())
    if (const DWORD error = CheckRange(source.descriptor(), 0, all > 0 ? all : 1, false)) return error;
  if (const DWORD error = CopyContents(source.descriptor(), target.descriptor(), source.status().size)) return error;
  return CopyProperties(source.status(), source.descriptor(), target);
}

}  // namespace

DWORD CopyFileByPath(const SystemPath& sourcePath, const SystemPath& targetPath, bool failIfExists) {
  OpenedFile source, target;
  OpenRequest request{{kReading, kAllRights}, OPEN_EXISTING};
  if (const DWORD error = source.Open(sourcePath, request)) return error;
  request = {{kWriting, kReading}, failIfExists ? CREATE_NEW : CREATE_ALWAYS};
  request.permissions = (source.status().mode & 0777) | S_IWUSR;
  request.source = &source.status();
  DWORD error = target.Open(targetPath, request);
  if (error == ERROR_SHARING_VIOLATION) {  // one who writes into the target, or maps it for that, and shares writing
    request.mode.share |= kWriting;
    error = target.Open(targetPath, request);
  }
  if (error) return !failIfExists && SameName(source.status(), targetPath) ? ERROR_SHARING_VIOLATION : error;
  error = CopyInto(source, target);
  if (error) unlink(targetPath.text());
  return error;
}

namespace {

// What is wrong with the source counts before what is wrong with the target.
DWORD Copy(const SystemPath& source, LPCWSTR targetName, bool failIfExists) {
  SystemPath target;
  const DWORD targetError = target.ParseFile(targetName);
  if (!targetError) return CopyFileByPath(source, target, failIfExists);
  OpenedFile opened;
  const DWORD error = opened.Open(source, {{kReading, kAllRights}, OPEN_EXISTING});
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
