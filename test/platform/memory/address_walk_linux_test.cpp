// Walks over an address space of very many mappings, on kernels that can be asked for one and on those that cannot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

constexpr int kMappings = 30000;

// From here on every ioctl of this process fails, as the question for one mapping does on older kernels.
bool ForbidQuestions() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_ioctl, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOTTY),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {std::size(steps), steps};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Every second page of the file, so that no two mappings are joined.
bool MapManyTimes(const std::filesystem::path& file) {
  const int descriptor = open(file.c_str(), O_RDONLY);
  for (int i = 0; i < kMappings; ++i)
    if (mmap(nullptr, 4096, PROT_READ, MAP_SHARED, descriptor, i % 2 * 8192) == MAP_FAILED) return false;
  return close(descriptor) == 0;
}

int CountMappedRegions() {
  int count = 0;
  uint64_t address = 0;
  for (MEMORY_BASIC_INFORMATION region; address < 0x100000000; address += region.RegionSize) {
    if (VirtualQuery(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), &region, sizeof region) == 0) return -1;
    count += region.Type == MEM_MAPPED && region.RegionSize == 4096;
  }
  return count;
}

CHILD_ROLE(WalkManyMappings) {
  if (!MapManyTimes(arguments[0])) return 1;
  if (arguments[1] == "reads" && !ForbidQuestions()) return 2;
  return CountMappedRegions() >= kMappings ? 0 : 3;
}

// A walk that read the map for every few regions anew would take minutes.
TEST(AddressWalk, ReadsTheMapOnceForManyMappings) {
  const ScratchFolder folder;
  std::filesystem::path longName = folder.Path();
  for (int i = 0; i < 4; ++i) longName /= std::string(200, 'n');
  std::filesystem::create_directories(longName);
  WriteWholeFile(longName / "file", std::string(3 * 4096, 'x'));
  for (const char* const way : {"asks", "reads"})
    EXPECT_EQ(ChildProcess("WalkManyMappings", {longName / "file", way}).Wait(), 0) << way;
}

// The buffer of the reader holds only the beginning of such a line.
CHILD_ROLE(FindMappingWithLongName) {
  const int descriptor = open(arguments[0].c_str(), O_RDONLY);
  void* const mapped = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, descriptor, 0);
  void* const next = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (!ForbidQuestions()) return 1;
  if (Query(mapped).Type != MEM_MAPPED || Query(mapped).Protect != PAGE_READONLY) return 2;
  return Query(next).Type == MEM_PRIVATE && Query(next).Protect == PAGE_READWRITE ? 0 : 3;
}

TEST(AddressWalk, LinesLongerThanTheBuffer) {
  const ScratchFolder folder;
  std::filesystem::path longName = folder.Path();
  for (int i = 0; i < 15; ++i) longName /= std::string(250, 'n');
  std::filesystem::create_directories(longName);
  WriteWholeFile(longName / "file", "x");
  EXPECT_EQ(ChildProcess("FindMappingWithLongName", {longName / "file"}).Wait(), 0);
}

}  // namespace
