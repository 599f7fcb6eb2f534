#include "platform/linux/shared_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/error.h"

namespace qel::layer {
namespace {

constexpr char kSharedMemory[] = "/dev/shm";
constexpr mode_t kPermissions = 0777;
constexpr mode_t kOwnerOnly = 0700;
constexpr int kGateTries = 50;
constexpr useconds_t kGatePauseUs = 1000;

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (value_ >= 0) close(value_);
  }
  int get() const { return value_; }
  int Detach() {
    const int value = value_;
    value_ = -1;
    return value;
  }

 private:
  int value_;
};

int OpenFolder(int parent, const char* name, uid_t user) {
  Descriptor folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (folder.get() < 0 || fstat(folder.get(), &status) != 0) return -1;
  if (status.st_uid != user || (status.st_mode & kPermissions) != kOwnerOnly) return -1;
  return folder.Detach();
}

// The descriptor of the smallest-named valid folder, and its name; -1 when there is none.
template <size_t kSize>
int FindFolder(int parent, const char* prefix, uid_t user, char (&name)[kSize]) {
  const int again = openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* entries = again < 0 ? nullptr : fdopendir(again);
  if (!entries) {
    if (again >= 0) close(again);
    return -1;
  }
  int found = -1;
  while (const dirent* entry = readdir(entries)) {
    if (std::strncmp(entry->d_name, prefix, std::strlen(prefix)) != 0 || std::strlen(entry->d_name) >= kSize) continue;
    if (found >= 0 && std::strcmp(entry->d_name, name) > 0) continue;
    const int folder = OpenFolder(parent, entry->d_name, user);
    if (folder < 0) continue;
    if (found >= 0) close(found);
    found = folder;
    std::strcpy(name, entry->d_name);
  }
  closedir(entries);
  return found;
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
  descriptor_ = FindFolder(parent.get(), prefix, user, name_);
  if (descriptor_ < 0) {
    EnterGate(parent.get());
    descriptor_ = FindFolder(parent.get(), prefix, user, name_);
    if (descriptor_ < 0 && MakeFolder(parent.get(), prefix))
      descriptor_ = FindFolder(parent.get(), prefix, user, name_);
    flock(parent.get(), LOCK_UN);
  }
  if (descriptor_ < 0) *error = ERROR_ACCESS_DENIED;
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
