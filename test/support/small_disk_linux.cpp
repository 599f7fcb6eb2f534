#include <sys/mount.h>

#include "test/support/small_disk.h"

namespace qel::test {

SmallDisk::SmallDisk(const char* size)
    : mounted_(mount("qel-test", folder_.Path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                     (std::string("size=") + size).c_str()) == 0) {}

SmallDisk::~SmallDisk() {
  if (mounted_) umount2(folder_.Path().c_str(), MNT_DETACH);
}

}  // namespace qel::test
