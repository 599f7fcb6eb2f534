#include "qelibaselib/platform/linux/objects/shared_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/folder_entries.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr char kSharedMemory[] = "/dev/shm";
constexpr mode_t kPermissions = 0777;
constexpr mode_t kOwnerOnly = 0700;
constexpr int kGateTries = 50;
constexpr useconds_t kGatePauseUs = 1000;

enum class Found { kFolder, kNone, kUnknown };

// -1 for one that is not the user's alone. `known` is false when that could not be found out.
int OpenFolder(int parent, const char* name, uid_t user, bool* known) {
  Descriptor folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  *known = folder.get() >= 0 || (errno != EMFILE && errno != ENFILE && errno != ENOMEM);
  if (folder.get() < 0 || fstat(folder.get(), &status) != 0) return -1;
  if (status.st_uid != user || (status.st_mode & kPermissions) != kOwnerOnly) return -1;
  return folder.Detach();
}

// The descriptor of the smallest-named valid folder, and its name. Not being able to look is no proof that there is
// none: whoever made one then would make another with every try.
template <size_t kSize>
Found FindFolder(int parent, const char* prefix, uid_t user, char (&name)[kSize], int* descriptor) {
  int found = -1;
  const bool read = ForEachEntry(parent, [&](const char* entry) {
    if (std::strncmp(entry, prefix, std::strlen(prefix)) != 0 || std::strlen(entry) >= kSize) return true;
    if (found >= 0 && std::strcmp(entry, name) > 0) return true;
    bool known = true;
    const int folder = OpenFolder(parent, entry, user, &known);
    if (folder < 0) return known;
    if (found >= 0) close(found);
    found = folder;
    std::strcpy(name, entry);
    return true;
  });
  if (!read && found >= 0) close(found);
  *descriptor = read ? found : -1;
  if (!read) return Found::kUnknown;
  return found >= 0 ? Found::kFolder : Found::kNone;
}

// One maker at a time, or two processes that start together could settle on two folders. Bounded, since any user can
// keep this lock: then only that small chance comes back.
void EnterGate(int parent) {
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
  if (descriptor_ >= 0 && user_ == user) return descriptor_;
  Forget();
  const Descriptor parent(open(kSharedMemory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0) {
    *error = ErrorFromErrno(errno);
    return -1;
  }
  char prefix[20];
  std::snprintf(prefix, sizeof prefix, "qel-%u-", static_cast<unsigned>(user));
  Found found = FindFolder(parent.get(), prefix, user, name_, &descriptor_);
  if (found == Found::kNone) {
    EnterGate(parent.get());
    found = FindFolder(parent.get(), prefix, user, name_, &descriptor_);
    if (found == Found::kNone && MakeFolder(parent.get(), prefix))
      FindFolder(parent.get(), prefix, user, name_, &descriptor_);
    flock(parent.get(), LOCK_UN);
  }
  if (descriptor_ < 0) *error = found == Found::kUnknown ? ERROR_NO_SYSTEM_RESOURCES : ERROR_ACCESS_DENIED;
  user_ = user;
  return descriptor_;
}

bool SharedFolder::ForgetIfRemoved() {
  struct stat status;
  if (descriptor_ >= 0 && fstat(descriptor_, &status) == 0 && status.st_nlink != 0) return false;
  Forget();
  return true;
}

void SharedFolder::Forget() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void SharedFolder::RemoveIfEmpty() {
  if (descriptor_ < 0) return;
  const Descriptor parent(open(kSharedMemory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() >= 0) unlinkat(parent.get(), name_, AT_REMOVEDIR);
}

}  // namespace qel::layer
