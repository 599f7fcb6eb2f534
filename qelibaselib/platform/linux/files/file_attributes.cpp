#include "qelibaselib/platform/linux/files/file_attributes.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr char kName[] = "user.qel.attributes";
constexpr mode_t kModeBits = 07777;
constexpr DWORD kStored = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
constexpr DWORD kStoredOfFile = kStored | FILE_ATTRIBUTE_TEMPORARY;
constexpr DWORD kStoredOfFolder = kStored | FILE_ATTRIBUTE_READONLY;

FILETIME FileTime(const statx_timestamp& time) {
  constexpr long long kSecondsFrom1601 = 11'644'473'600, kTicks = 10'000'000;
  const auto ticks = static_cast<ULONGLONG>((time.tv_sec + kSecondsFrom1601) * kTicks + time.tv_nsec / 100);
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

mode_t MarkOf(bool folder) { return folder ? S_ISUID : S_ISVTX; }

DWORD Finish(const FileStatus& status, DWORD stored) {
  DWORD attributes = stored & (status.IsFolder() ? kStoredOfFolder : kStoredOfFile);
  if (status.IsFolder()) attributes |= FILE_ATTRIBUTE_DIRECTORY;
  if (status.IsReadOnlyFile()) attributes |= FILE_ATTRIBUTE_READONLY;
  if (S_ISLNK(status.mode)) attributes = FILE_ATTRIBUTE_ARCHIVE | kReparsePoint;
  return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

// `read(text, size)` is the getxattr that fits.
template <class Read>
DWORD Attributes(const FileStatus& status, Read read) {
  const bool folder = status.IsFolder();
  if (!(status.mode & MarkOf(folder))) return Finish(status, folder ? 0 : FILE_ATTRIBUTE_ARCHIVE);
  char text[16];
  const ssize_t length = read(text, sizeof text - 1);
  if (length <= 0) return Finish(status, folder ? FILE_ATTRIBUTE_READONLY : 0);
  text[length] = 0;
  return Finish(status, std::strtoul(text, nullptr, 16));
}

// A new write bit goes to the owner alone: who else had one before is not remembered.
mode_t ModeFor(const FileStatus& status, DWORD attributes) {
  mode_t mode = status.mode & kModeBits & ~MarkOf(status.IsFolder());
  if (status.IsFolder()) return mode;
  if (attributes & FILE_ATTRIBUTE_READONLY) return mode & ~kWriteBits;
  return mode & kWriteBits ? mode : mode | S_IWUSR;
}

struct ByPath {
  const char* path;
  void Set(const char* text, size_t length) const { setxattr(path, kName, text, length, 0); }
  void Remove() const { removexattr(path, kName); }
  int ChangeMode(mode_t mode) const { return chmod(path, mode); }
};
struct ByDescriptor {
  int descriptor;
  void Set(const char* text, size_t length) const { fsetxattr(descriptor, kName, text, length, 0); }
  void Remove() const { fremovexattr(descriptor, kName); }
  int ChangeMode(mode_t mode) const { return fchmod(descriptor, mode); }
};

// A file system without extended attributes keeps what the mode can say.
template <class Target>
int Write(const Target& target, const FileStatus& status, DWORD attributes) {
  const bool folder = status.IsFolder();
  const mode_t mark = MarkOf(folder);
  const DWORD stored = attributes & (folder ? kStoredOfFolder : kStoredOfFile);
  const DWORD unmarked = folder ? 0 : FILE_ATTRIBUTE_ARCHIVE, unwritten = folder ? FILE_ATTRIBUTE_READONLY : 0;
  const bool writes = stored != unmarked && stored != unwritten;
  if (writes) {
    char text[16];
    target.Set(text, static_cast<size_t>(std::snprintf(text, sizeof text, "0x%lx", stored)));
  } else if (status.mode & mark) {
    target.Remove();
  }
  const mode_t mode = ModeFor(status, attributes) | (stored != unmarked ? mark : 0);
  if (mode == (status.mode & kModeBits)) return 0;
  return target.ChangeMode(mode) == 0 ? 0 : errno;
}

// A link has no attributes of its own here, and what it leads to may be anybody's.
DWORD SetAttributes(LPCWSTR name, DWORD attributes) {
  if (!AreKnownAttributes(attributes)) return ERROR_INVALID_PARAMETER;
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  FileStatus status;
  if (const int error = ReadStatus(AT_FDCWD, path.text(), AT_SYMLINK_NOFOLLOW, status)) return PathError(error, path);
  if (path.EndsInSeparator() && !status.IsFolder()) return path.SeparatorError();
  if (S_ISLNK(status.mode)) return ERROR_SUCCESS;
  const int error = WriteAttributes(path.text(), status, attributes);
  return error ? ErrorFromErrno(error) : ERROR_SUCCESS;
}

}  // namespace

void FillStatus(FileStatus& status, const struct statx& found) {
  status.mode = found.stx_mode;
  status.links = found.stx_nlink;
  status.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  status.node = found.stx_ino;
  status.size = S_ISDIR(found.stx_mode) ? 0 : found.stx_size;
  status.written = FileTime(found.stx_mtime);
  status.writtenExactly = {static_cast<time_t>(found.stx_mtime.tv_sec), static_cast<long>(found.stx_mtime.tv_nsec)};
  status.accessed = FileTime(found.stx_atime);
  status.created = found.stx_mask & STATX_BTIME ? FileTime(found.stx_btime) : status.written;
}

DWORD AttributesOf(const FileStatus& status, const char* path) {
  return Attributes(status, [&](char* text, size_t size) { return getxattr(path, kName, text, size); });
}

DWORD AttributesOf(const FileStatus& status, int descriptor) {
  return Attributes(status, [&](char* text, size_t size) { return fgetxattr(descriptor, kName, text, size); });
}

bool AreKnownAttributes(DWORD attributes) {
  constexpr DWORD kKnown = kStoredOfFile | kStoredOfFolder | FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_NORMAL;
  return (attributes & ~kKnown) == 0;
}

int WriteAttributes(const char* path, const FileStatus& status, DWORD attributes) {
  return Write(ByPath{path}, status, attributes);
}

int WriteAttributes(int descriptor, const FileStatus& status, DWORD attributes) {
  return Write(ByDescriptor{descriptor}, status, attributes);
}

}  // namespace qel::layer

using namespace qel::layer;

DWORD GetFileAttributesW(LPCWSTR name) {
  SystemPath path;
  FileStatus status;
  DWORD error = path.Parse(name);
  if (!error) {
    if (const int number = ReadStatusOfName(path.text(), status))
      error = PathError(number, path);
    else if (path.EndsInSeparator() && !status.IsFolder())
      error = ERROR_INVALID_NAME;
  }
  if (!error) return AttributesOf(status, path.text());
  SetLastError(error);
  return INVALID_FILE_ATTRIBUTES;
}

BOOL SetFileAttributesW(LPCWSTR name, DWORD attributes) {
  const DWORD error = SetAttributes(name, attributes);
  if (error) SetLastError(error);
  return error == ERROR_SUCCESS;
}
