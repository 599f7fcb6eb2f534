/// @file
/// The Win32 attributes of a file or folder.
///
/// Read-only is a file without any write bit. Hidden, system, archive and temporary stand in the extended attribute
/// "user.qel.attributes" as hexadecimal text. Whether there is anything to read there, an unused mode bit says (sticky
/// of a file, set-user-id of a folder), so that an ordinary file costs one stat. An ordinary file has ARCHIVE; a marked
/// one without the extended attribute has nothing (a file) or is read-only (a folder). Where the file system has no
/// extended attributes, that is all that is kept.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>

#include "qelibaselib/platform/linux/base/kernel_call.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

constexpr DWORD kReparsePoint = FILE_ATTRIBUTE_REPARSE_POINT;
constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

/// The parts of a stat that Win32 answers are made of.
struct FileStatus {
  mode_t mode;
  unsigned links;
  unsigned long long device, node, size;
  FILETIME created, accessed, written;
  timespec writtenExactly;

  bool IsFolder() const { return S_ISDIR(mode); }
  bool IsReadOnlyFile() const { return !S_ISDIR(mode) && (mode & kWriteBits) == 0; }
  bool SameFile(const FileStatus& other) const { return device == other.device && node == other.node; }
};

void FillStatus(FileStatus& status, const struct statx& found);

/// 0 or the errno. `flags` may be AT_SYMLINK_NOFOLLOW. These are a part of the caller, as their system call wants it.
[[gnu::always_inline]] inline int ReadStatus(int folder, const char* name, int flags, FileStatus& status) {
  struct statx found;
  if (KernelCall(SYS_statx, folder, name, flags, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) return errno;
  FillStatus(status, found);
  return 0;
}
[[gnu::always_inline]] inline int ReadStatus(int descriptor, FileStatus& status) {
  return ReadStatus(descriptor, "", AT_EMPTY_PATH, status);
}
/// Follows a link; one that cannot be followed is answered for itself.
[[gnu::always_inline]] inline int ReadStatusOfName(const char* path, FileStatus& status) {
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
