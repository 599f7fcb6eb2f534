#include "qelibaselib/platform/linux/files/file_attributes.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

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
constexpr unsigned long long kBlockBytes = 512;
constexpr DWORD kStored = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
constexpr DWORD kStoredOfFile = kStored | FILE_ATTRIBUTE_TEMPORARY;
constexpr DWORD kStoredOfFolder = kStored | FILE_ATTRIBUTE_READONLY;

FILETIME FileTime(const statx_timestamp& time) {
  constexpr long long kSecondsFrom1601 = 11'644'473'600, kTicks = 10'000'000;
  const auto ticks = static_cast<ULONGLONG>((time.tv_sec + kSecondsFrom1601) * kTicks + time.tv_nsec / 100);
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

mode_t MarkOf(bool folder) { return folder ? S_ISUID : S_ISVTX; }

DWORD StorableIn(const FileStatus& status) { return status.IsFolder() ? kStoredOfFolder : kStoredOfFile; }
DWORD StoredWithoutMark(bool folder) { return folder ? 0 : FILE_ATTRIBUTE_ARCHIVE; }
DWORD StoredWithoutText(bool folder) { return folder ? FILE_ATTRIBUTE_READONLY : 0; }

DWORD ComposeAttributes(const FileStatus& status, DWORD stored) {
  if (S_ISLNK(status.mode)) return FILE_ATTRIBUTE_ARCHIVE | kReparsePoint;
  DWORD attributes = status.IsSpecial() ? FILE_ATTRIBUTE_DEVICE : stored & StorableIn(status);
  if (status.IsFolder()) attributes |= FILE_ATTRIBUTE_DIRECTORY;
  if (status.IsReadOnlyFile()) attributes |= FILE_ATTRIBUTE_READONLY;
  return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

// `read(text, size)` is the getxattr that fits.
template <class Read>
DWORD ReadAttributes(const FileStatus& status, Read read) {
  const bool folder = status.IsFolder();
  if (!(status.mode & MarkOf(folder)) || status.IsSpecial())
    return ComposeAttributes(status, StoredWithoutMark(folder));
  char text[16];
  const ssize_t length = read(text, sizeof text - 1);
  if (length <= 0) return ComposeAttributes(status, StoredWithoutText(folder));
  text[length] = 0;
  return ComposeAttributes(status, std::strtoul(text, nullptr, 16));
}

// A new write bit goes to the owner alone, because nobody remembers who else had one before.
mode_t PermissionsFor(const FileStatus& status, DWORD attributes) {
  const mode_t mode = status.mode & kModeBits & ~MarkOf(status.IsFolder());
  if (status.IsFolder()) return mode;
  if (attributes & FILE_ATTRIBUTE_READONLY) return mode & ~kWriteBits;
  return mode & kWriteBits ? mode : mode | S_IWUSR;
}

// The two ways to name the file that is changed. Each function returns 0 or the errno.
struct FileByPath {
  const char* path;
  int SetText(const char* text, size_t length) const { return setxattr(path, kName, text, length, 0) ? errno : 0; }
  int RemoveText() const { return removexattr(path, kName) ? errno : 0; }
  int ChangeMode(mode_t mode) const { return chmod(path, mode) ? errno : 0; }
};
struct FileByDescriptor {
  int descriptor;
  int SetText(const char* text, size_t length) const {
    return fsetxattr(descriptor, kName, text, length, 0) ? errno : 0;
  }
  int RemoveText() const { return fremovexattr(descriptor, kName) ? errno : 0; }
  int ChangeMode(mode_t mode) const { return fchmod(descriptor, mode) ? errno : 0; }
};

// Only who may write a file may change its extended attributes, so a read-only file becomes writable for the moment.
// `mode` is what the file has then.
template <class Target, class Change>
int ChangeText(const Target& target, mode_t& mode, Change change) {
  const int error = change();
  if (error != EACCES || (mode & S_IWUSR)) return error;
  if (const int refused = target.ChangeMode(mode | S_IWUSR)) return refused;
  mode |= S_IWUSR;
  return change();
}

template <class Target>
int StoreText(const Target& target, mode_t& mode, DWORD stored) {
  char text[16];
  const auto length =
      static_cast<size_t>(std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(stored)));
  return ChangeText(target, mode, [&] { return target.SetText(text, length); });
}

// How attributes are stored: the rows of the table in the header.
enum class StoredForm { kUnmarked, kMarkAlone, kText };

StoredForm FormOf(bool folder, DWORD stored) {
  if (stored == StoredWithoutMark(folder)) return StoredForm::kUnmarked;
  return stored == StoredWithoutText(folder) ? StoredForm::kMarkAlone : StoredForm::kText;
}
// The form on a file system without extended attributes.
StoredForm FormWithoutText(bool folder, DWORD stored) {
  const bool marked = folder ? (stored & FILE_ATTRIBUTE_READONLY) != 0 : (stored & FILE_ATTRIBUTE_ARCHIVE) == 0;
  return marked ? StoredForm::kMarkAlone : StoredForm::kUnmarked;
}

template <class Target>
int WriteText(const Target& target, mode_t& mode, bool folder, DWORD stored, StoredForm& form) {
  if (form == StoredForm::kUnmarked) return 0;
  const int error = form == StoredForm::kText ? StoreText(target, mode, stored)
                                              : ChangeText(target, mode, [&] { return target.RemoveText(); });
  if (error == ENOTSUP) form = FormWithoutText(folder, stored);
  return error == ENOTSUP || error == ENODATA ? 0 : error;
}

template <class Target>
int Write(const Target& target, const FileStatus& status, DWORD attributes) {
  const bool folder = status.IsFolder();
  const DWORD stored = attributes & StorableIn(status);
  StoredForm form = status.IsSpecial() ? StoredForm::kUnmarked : FormOf(folder, stored);
  const mode_t before = status.mode & kModeBits;
  mode_t present = before;
  const int error = WriteText(target, present, folder, stored, form);
  const mode_t mark = form == StoredForm::kUnmarked ? 0 : MarkOf(folder);
  const mode_t wanted = error ? before : PermissionsFor(status, attributes) | mark;
  const int refused = wanted == present ? 0 : target.ChangeMode(wanted);
  if (!error && !refused && mark == 0 && (before & MarkOf(folder))) target.RemoveText();  // nobody reads it any more
  return error ? error : refused;
}

// The attributes that a reader finds after these were written.
DWORD AttributesAfterWriting(const FileStatus& status, DWORD attributes) {
  FileStatus after = status;
  after.mode = (status.mode & S_IFMT) | PermissionsFor(status, attributes);
  return ComposeAttributes(after, attributes);
}

// Windows asks for the right to write attributes before it looks whether there is a change.
bool MayWriteAttributes(const char* path, const FileStatus& status) {
  return status.owner == geteuid() || faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0;
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
  if (AttributesOf(status, path.text()) == AttributesAfterWriting(status, attributes))
    return MayWriteAttributes(path.text(), status) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
  const int error = WriteAttributes(path.text(), status, attributes);
  return error ? ErrorFromErrno(error) : ERROR_SUCCESS;
}

}  // namespace

void FillStatus(FileStatus& status, const struct statx& found) {
  status.mode = found.stx_mode;
  status.owner = found.stx_uid;
  status.links = found.stx_nlink;
  status.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  status.node = found.stx_ino;
  status.size = S_ISREG(found.stx_mode) ? found.stx_size : 0;  // of a link it is the length of a name
  status.allocated = found.stx_blocks * kBlockBytes;
  status.written = FileTime(found.stx_mtime);
  status.writtenExactly = {static_cast<time_t>(found.stx_mtime.tv_sec), static_cast<long>(found.stx_mtime.tv_nsec)};
  status.accessed = FileTime(found.stx_atime);
  status.created = found.stx_mask & STATX_BTIME ? FileTime(found.stx_btime) : status.written;
}

DWORD AttributesOf(const FileStatus& status, const char* path) {
  return ReadAttributes(status, [&](char* text, size_t size) { return getxattr(path, kName, text, size); });
}

DWORD AttributesOf(const FileStatus& status, int descriptor) {
  return ReadAttributes(status, [&](char* text, size_t size) { return fgetxattr(descriptor, kName, text, size); });
}

bool AreKnownAttributes(DWORD attributes) {
  constexpr DWORD kKnown = kStoredOfFile | kStoredOfFolder | FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_NORMAL;
  return (attributes & ~kKnown) == 0;
}

int WriteAttributes(const char* path, const FileStatus& status, DWORD attributes) {
  return Write(FileByPath{path}, status, attributes);
}

int WriteAttributes(int descriptor, const FileStatus& status, DWORD attributes) {
  return Write(FileByDescriptor{descriptor}, status, attributes);
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

BOOL SetFileAttributesW(LPCWSTR name, DWORD attributes) { return ReportResult(SetAttributes(name, attributes)); }
