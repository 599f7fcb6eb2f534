/// @file
/// The Win32 attributes of a file or folder, and the status from which Win32 answers are made.
///
/// The problem: a Unix file has no place for hidden, system, archive and temporary, and an ordinary file must cost no
/// more than one stat.
/// The idea: read-only is a file without any write bit. The other attributes stand in the extended attribute
/// "user.qel.attributes" as hexadecimal text. An otherwise unused mode bit, the mark, says that there is something to
/// know (the sticky bit of a file, the set-user-id bit of a folder), so that an unmarked file is not asked any further.
///
/// | mark | text | a file has | a folder has |
/// |---|---|---|---|
/// | no | not read | archive | nothing |
/// | yes | none | nothing | read-only |
/// | yes | present | what it says | what it says |
///
/// The text is written before the mark and outlives it, so a process that dies in between leaves a text that nobody
/// reads. A file system without extended attributes keeps what the first two rows can say, and the rest is dropped.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "qelibaselib/platform/linux/files/sharing_board.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

constexpr DWORD kReparsePoint = FILE_ATTRIBUTE_REPARSE_POINT;
constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

/// The parts of a stat that Win32 answers are made of.
struct FileStatus {
  mode_t mode;
  uid_t owner;
  unsigned links;
  unsigned long long device, node, size;
  unsigned long long allocated;  // bytes that have blocks of the disk
  FILETIME created, accessed, written;
  timespec writtenExactly;

  bool IsFolder() const { return S_ISDIR(mode); }
  bool IsRegularFile() const { return S_ISREG(mode); }
  /// A device, a pipe or a socket: neither contents that end nor a place for attributes.
  bool IsSpecial() const { return !S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode); }
  bool HasHoles() const { return allocated < size; }
  bool IsReadOnlyFile() const { return !S_ISDIR(mode) && (mode & kWriteBits) == 0; }
  FileKey Key() const { return {device, node}; }
  bool SameFile(const FileStatus& other) const { return device == other.device && node == other.node; }
};

void FillStatus(FileStatus& status, const struct statx& found);

/// 0 or the errno. `flags` may be AT_SYMLINK_NOFOLLOW.
inline int ReadStatus(int folder, const char* name, int flags, FileStatus& status) {
  struct statx found;
  if (statx(folder, name, flags, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) return errno;
  FillStatus(status, found);
  return 0;
}
inline int ReadStatus(int descriptor, FileStatus& status) { return ReadStatus(descriptor, "", AT_EMPTY_PATH, status); }
/// Follows a link; one that cannot be followed is answered for itself.
inline int ReadStatusOfName(const char* path, FileStatus& status) {
  if (ReadStatus(AT_FDCWD, path, 0, status) == 0) return 0;
  return ReadStatus(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status);
}

/// What GetFileAttributesW gives; `path` is read only where the mode says that there is more.
DWORD AttributesOf(const FileStatus& status, const char* path);
DWORD AttributesOf(const FileStatus& status, int descriptor);

/// Whether SetFileAttributesW and CreateFileW know these and no others.
bool AreKnownAttributes(DWORD attributes);

/// Replaces the attributes of a file. Returns the errno.
int WriteAttributes(const char* path, const FileStatus& status, DWORD attributes);
int WriteAttributes(int descriptor, const FileStatus& status, DWORD attributes);

}  // namespace qel::layer
