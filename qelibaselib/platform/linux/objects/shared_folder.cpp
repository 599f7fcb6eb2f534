#include "qelibaselib/platform/linux/objects/shared_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/folder_entries.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/own_mode.h"

namespace qel::layer {
namespace {

constexpr char kSharedMemory[] = "/dev/shm";
constexpr mode_t kOwnerOnly = 0700;
constexpr int kGateTries = 50;
constexpr useconds_t kGatePauseUs = 1000;

enum class Lookup { kFound, kNone, kUnknown };

// A lack of descriptors or memory says nothing about the folder.
bool IsLackOfMeans(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

// Opens a folder that is the user's alone. kNone: it is not, or it is no folder.
Lookup OpenOwnFolder(int parent, const char* name, uid_t user, int* descriptor) {
  errno = 0;
  if (!RestoreOwnMode(parent, name, user, S_IFDIR, kOwnerOnly))
    return IsLackOfMeans(errno) ? Lookup::kUnknown : Lookup::kNone;
  Descriptor folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() < 0) return IsLackOfMeans(errno) ? Lookup::kUnknown : Lookup::kNone;
  struct stat status;
  if (fstat(folder.get(), &status) != 0 || status.st_uid != user || (status.st_mode & 0777) != kOwnerOnly)
    return Lookup::kNone;
  *descriptor = folder.Detach();
  return Lookup::kFound;
}

// The descriptor of the smallest-named valid folder, and its name. Not being able to look is no proof that there is
// none: whoever made one then would make another with every try.
template <size_t kSize>
Lookup FindFolder(int parent, const char* prefix, uid_t user, char (&name)[kSize], int* descriptor) {
  int found = -1;
  const bool read = ForEachEntry(parent, [&](const char* entry) {
    if (std::strncmp(entry, prefix, std::strlen(prefix)) != 0 || std::strlen(entry) >= kSize) return true;
    if (found >= 0 && std::strcmp(entry, name) > 0) return true;
    int folder = -1;
    const Lookup lookup = OpenOwnFolder(parent, entry, user, &folder);
    if (lookup != Lookup::kFound) return lookup == Lookup::kNone;
    if (found >= 0) close(found);
    found = folder;
    std::strcpy(name, entry);
    return true;
  });
  if (!read && found >= 0) close(found);
  *descriptor = read ? found : -1;
  if (!read) return Lookup::kUnknown;
  return found >= 0 ? Lookup::kFound : Lookup::kNone;
}

// Bounded, since any user can keep this lock: two processes could then settle on two folders.
void WaitForOtherMakers(int parent) {
  for (int i = 0; i < kGateTries && flock(parent, LOCK_EX | LOCK_NB) != 0; ++i) usleep(kGatePauseUs);
}

bool MakeFolder(int parent, const char* prefix) {
  uint64_t random = 0;
  if (getrandom(&random, sizeof random, 0) != sizeof random) return false;
  char name[40];
  std::snprintf(name, sizeof name, "%s%08x%08x", prefix, static_cast<unsigned>(random >> 32),
                static_cast<unsigned>(random));
  return mkdirat(parent, name, kOwnerOnly) == 0 || errno == EEXIST;
}

}  // namespace

int SharedFolder::Open(uid_t user, DWORD* error) {
  if (user_ == user && folder_.IsOurs()) return folder_.get();
  Forget();
  const Descriptor parent(open(kSharedMemory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0) {
    *error = ErrorFromErrno(errno);
    return -1;
  }
  char prefix[20];
  std::snprintf(prefix, sizeof prefix, "qel-%u-", static_cast<unsigned>(user));
  int found = -1;
  Lookup lookup = FindFolder(parent.get(), prefix, user, name_, &found);
  // Under another user's rights than those of the process one could only be made that is of no use.
  if (lookup == Lookup::kNone && user == geteuid()) {
    WaitForOtherMakers(parent.get());
    lookup = FindFolder(parent.get(), prefix, user, name_, &found);
    if (lookup == Lookup::kNone && MakeFolder(parent.get(), prefix))
      FindFolder(parent.get(), prefix, user, name_, &found);
    flock(parent.get(), LOCK_UN);
  }
  folder_.Take(found);
  if (folder_.get() < 0) *error = lookup == Lookup::kUnknown ? ERROR_NO_SYSTEM_RESOURCES : ERROR_ACCESS_DENIED;
  user_ = user;
  return folder_.get();
}

bool SharedFolder::ForgetIfRemoved() {
  struct stat status;
  if (folder_.IsOurs(&status) && status.st_nlink != 0) return false;
  Forget();
  return true;
}

void SharedFolder::RemoveIfEmpty() {
  if (!folder_.IsOurs()) return;
  const Descriptor parent(open(kSharedMemory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() >= 0) unlinkat(parent.get(), name_, AT_REMOVEDIR);
}

void SharedFolder::RemoveUnheldFilesAndFolder() {
  if (folder_.IsOurs()) RemoveUnheldFiles(folder_.get());
  RemoveIfEmpty();
  Forget();
}

}  // namespace qel::layer
