// Memory limits of containers, of both versions of control groups.
#include <sys/mount.h>

#include "qelibaselib/platform/linux/memory/container_memory.h"
#include "test/support/library.h"
#include "test/support/own_mounts.h"

using namespace qel::test;
using qel::layer::ContainerMemory;
using qel::layer::ReadContainerMemory;

namespace {

constexpr uint64_t kMiB = 1 << 20, kNoLimit = UINT64_MAX;

void WriteGroup2(const fs::path& folder, const std::string& limit, uint64_t used, uint64_t cached) {
  fs::create_directories(folder);
  WriteWholeFile(folder / "memory.max", limit + "\n");
  WriteWholeFile(folder / "memory.current", std::to_string(used) + "\n");
  WriteWholeFile(folder / "memory.stat", "anon 1\nfile 2\ninactive_anon 3\nactive_anon 4\ninactive_file " +
                                             std::to_string(cached) + "\nactive_file " + std::to_string(cached) + "\n");
}

void WriteGroup1(const fs::path& folder, uint64_t limit, uint64_t used, uint64_t cached) {
  fs::create_directories(folder);
  WriteWholeFile(folder / "memory.limit_in_bytes", std::to_string(limit) + "\n");
  WriteWholeFile(folder / "memory.usage_in_bytes", std::to_string(used) + "\n");
  WriteWholeFile(folder / "memory.stat", "inactive_file 77777\nactive_file 5\ntotal_cache 8\ntotal_inactive_file " +
                                             std::to_string(cached) + "\ntotal_active_file 0\n");
}

TEST(ContainerMemory, LeastOfAllGroupsUpToTheTop) {
  const ScratchFolder folder;
  const fs::path top = folder.Path();
  WriteGroup2(top / "a", std::to_string(300 * kMiB), 290 * kMiB, 0);
  WriteGroup2(top / "a/b", "max", 100, 0);
  WriteGroup2(top / "a/b/c", std::to_string(200 * kMiB), 50 * kMiB, 10 * kMiB);
  WriteGroup2(top / "over", std::to_string(10 * kMiB), 11 * kMiB, 0);
  WriteGroup1(top / "memory", 0x7FFFFFFFFFFFF000, 5, 0);
  WriteGroup1(top / "memory/docker", 100 * kMiB, 90 * kMiB, 40 * kMiB);
  const struct {
    const char* groups;
    uint64_t total, available;
  } rows[] = {
      {"0::/a/b/c\n", 200 * kMiB, 10 * kMiB},
      {"0::/a/b\n", 300 * kMiB, 10 * kMiB},
      {"0::/over\n", 10 * kMiB, 0},
      {"0::/\n", kNoLimit, kNoLimit},
      {"0::/a/not/seen/from/inside", 300 * kMiB, 10 * kMiB},
      {"5:cpuset:/a\n4:cpu,memory:/docker\n0::/a\n", 100 * kMiB, 50 * kMiB},
      {"4:memory:/elsewhere\n0::/a\n", 0x7FFFFFFFFFFFF000, 0x7FFFFFFFFFFFF000 - 5},
      {"4:memory_not:/docker\n", kNoLimit, kNoLimit},
      {"", kNoLimit, kNoLimit},
      {"::\n:\n\nmemory", kNoLimit, kNoLimit},
  };
  for (const auto& [groups, total, available] : rows) {
    SCOPED_TRACE(groups);
    const ContainerMemory memory = ReadContainerMemory(groups, top.c_str());
    EXPECT_EQ(memory.total, total);
    EXPECT_EQ(memory.available, available);
  }
  const std::string tooLong = "0::/" + std::string(600, 'x') + "\n";
  EXPECT_EQ(ReadContainerMemory(tooLong, top.c_str()).total, kNoLimit);
}

// In a mount name space of its own, where the groups' files say what they say in a container of 400 MiB.
CHILD_ROLE(AskMemoryInContainer) {
  if (!EnterOwnMountSpace() || mount("groups", "/sys/fs/cgroup", "tmpfs", 0, nullptr) != 0) return 77;
  for (const bool isFull : {false, true}) {
    WriteGroup1("/sys/fs/cgroup/memory", 400 * kMiB, isFull ? 200 * kMiB : 20 * kMiB, 0);
    WriteGroup2("/sys/fs/cgroup", std::to_string(400 * kMiB), isFull ? 200 * kMiB : 20 * kMiB, 0);
    Sleep(250);  // figures may be a little old
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof status;
    GlobalMemoryStatusEx(&status);
    EXPECT_EQ(status.ullTotalPhys, 400 * kMiB);
    EXPECT_EQ(status.ullAvailPhys, isFull ? 200 * kMiB : 380 * kMiB);
    EXPECT_EQ(status.dwMemoryLoad, isFull ? 50u : 5u);
    EXPECT_EQ(IsPhysMemShortage(100), isFull ? TRUE : FALSE) << "the floor is 256 MiB";
    EXPECT_EQ(IsPhysMemShortage(50), isFull ? TRUE : FALSE);
    SIZE_T minimum = 0, maximum = 0;
    EXPECT_TRUE(GetProcessWorkingSetSize(GetCurrentProcess(), &minimum, &maximum));
    EXPECT_EQ(maximum, 400 * kMiB);
    EXPECT_LE(minimum, maximum);
  }
  return testing::Test::HasFailure();
}

TEST(ContainerMemory, LimitsOfTheMemoryStatus) {
  const int result = ChildProcess("AskMemoryInContainer").Wait();
  if (result == 77) GTEST_SKIP() << "needs to be root, for a mount";
  EXPECT_EQ(result, 0);
}

}  // namespace
