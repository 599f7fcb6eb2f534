#include "qelibaselib/platform/linux/objects/object_locks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qelibaselib/platform/linux/base/folder_entries.h"
#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"

namespace qel::layer {
namespace {

// The first byte is that of the file, the others are those of its processes.
constexpr off_t kFirstNumberByte = 1;

bool SetLock(int file, short type, off_t start = 0, off_t length = 1) {
  struct flock lock = LockRange(type, start, length);
  return RetryOnInterrupt([&] { return fcntl(file, F_OFD_SETLK, &lock); }) == 0;
}

// The kind of a lock that others have on the byte.
short LockOfOthers(int file, off_t byte) {
  struct flock lock = LockRange(F_WRLCK, byte, 1);
  return fcntl(file, F_OFD_GETLK, &lock) == 0 ? lock.l_type : short{F_UNLCK};
}

// Removes the file when nobody holds it. The name is looked at under the lock: it may be another file's by now.
void RemoveIfUnheld(int folder, int file, const char* fileName) {
  if (!TryHoldExclusive(file)) return;
  UnlinkFile(folder, file, fileName);
  DropHolds(file);
}

}  // namespace

bool TryHoldExclusive(int file) { return SetLock(file, F_WRLCK); }
bool TryHoldShared(int file) { return SetLock(file, F_RDLCK); }
void DropHolds(int file) { SetLock(file, F_UNLCK, 0, 0); }
bool TryHoldNumber(int file, uint32_t number) { return SetLock(file, F_WRLCK, kFirstNumberByte + number); }
bool IsNumberHeld(int file, uint32_t number) { return LockOfOthers(file, kFirstNumberByte + number) != F_UNLCK; }

FileHolder HolderOf(int file) {
  const short type = LockOfOthers(file, 0);
  if (type == F_UNLCK) return FileHolder::kNone;
  return type == F_WRLCK ? FileHolder::kMaker : FileHolder::kUser;
}

void UnlinkFile(int folder, int file, const char* fileName) {
  struct stat opened, named;
  if (fstat(file, &opened) != 0 || fstatat(folder, fileName, &named, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (opened.st_ino == named.st_ino && opened.st_dev == named.st_dev) unlinkat(folder, fileName, 0);
}

bool IsOwnFile(int file, unsigned user) {
  struct stat status;
  return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == user && (status.st_mode & 077) == 0;
}

void LeaveFile(int folder, int file, const char* fileName) {
  // First let go, then try to be alone: two last users that both only raised their lock would block each other.
  DropHolds(file);
  RemoveIfUnheld(folder, file, fileName);
}

void RemoveUnheldFiles(int folder) {
  ForEachEntry(folder, [folder](const char* name) {
    const Descriptor file(openat(folder, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() >= 0) RemoveIfUnheld(folder, file.get(), name);
    return true;
  });
}

}  // namespace qel::layer
