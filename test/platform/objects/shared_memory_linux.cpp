#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>

#include "test/platform/objects/shared_memory.h"

namespace qel::test {

bool UsePrivateSharedMemory(const std::string& mountOptions) {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("test", "/dev/shm", "tmpfs", 0, ("mode=1777," + mountOptions).c_str()) == 0;
}

std::vector<std::string> ListSharedMemory() {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/dev/shm"))
    found.push_back(entry.path().lexically_relative("/dev/shm").string());
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace qel::test
