#include <sched.h>
#include <sys/mount.h>

#include <filesystem>

#include "test/support/own_mounts.h"

namespace qel::test {

bool EnterOwnMountSpace() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool UsePrivateSharedMemory(const std::string& mountOptions) {
  return EnterOwnMountSpace() && mount("test", "/dev/shm", "tmpfs", 0, ("mode=1777," + mountOptions).c_str()) == 0;
}

size_t CountSharedMemory() {
  const std::filesystem::recursive_directory_iterator all("/dev/shm"), end;
  return static_cast<size_t>(std::distance(all, end));
}

}  // namespace qel::test
