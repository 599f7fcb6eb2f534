// A full disk, an address space that is used up, limits: each in a place or a process of its own.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"

using qel::test::ChildProcess;
using qel::test::Handle;
using qel::test::kUntouched;
using qel::test::View;

namespace {

#ifdef QEL_SANITIZE
constexpr bool kSanitized = true;  // such a process has used most of its address space before main
#else
constexpr bool kSanitized = false;
#endif

class SmallDisk {
 public:
  SmallDisk() : mounted_(mount("none", folder_.Path().c_str(), "tmpfs", 0, "size=1m") == 0) {}
  ~SmallDisk() {
    if (mounted_) umount(folder_.Path().c_str());
  }
  bool mounted() const { return mounted_; }
  std::wstring Wide(const char* name) const { return folder_.Wide(name); }

 private:
  const qel::test::ScratchFolder folder_;
  const bool mounted_;
};

TEST(Shortage, AFullDiskIsKnownAtTheCreation) {
  const SmallDisk disk;
  if (!disk.mounted()) GTEST_SKIP() << "needs to be root, for a disk of 1 MiB";
  {
    const Handle file(
        CreateFileW(disk.Wide("file").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    DWORD count = 0;
    ASSERT_TRUE(WriteFile(file, "0123456789", 10, &count, nullptr));
    const auto create = [&](DWORD bytes) {
      return CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, bytes, nullptr);
    };
    EXPECT_CALL(create(4 << 20), nullptr, ERROR_DISK_FULL);
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    EXPECT_EQ(size.QuadPart, 10) << "a failure leaves the size";
    EXPECT_CALL(CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0x7FFFFFFF, 0, nullptr), nullptr, ERROR_DISK_FULL);
    const Handle fits(create(512 << 10));
    const View view(fits, FILE_MAP_WRITE, 0, 0);
    for (int i = 0; i < 512 << 10; i += 4096) view[i] = 1;
  }
}

// Takes what is left and looks at how the calls say so. The result names the first thing that is wrong.
int UseUpAddressSpace() {
  const Handle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 128 << 20, nullptr));
  std::vector<View> views;
  views.reserve(64);
  SetLastError(kUntouched);
  for (;;) {
    View view(mapping, FILE_MAP_READ, 0, 0);
    if (!view) break;
    views.push_back(std::move(view));
    if (views.size() == 64) return 1;
  }
  if (GetLastError() != ERROR_NOT_ENOUGH_MEMORY) return 2;
  if (VirtualAlloc(nullptr, 256 << 20, MEM_RESERVE, PAGE_READWRITE)) return 3;
  if (GetLastError() != ERROR_NOT_ENOUGH_MEMORY) return 4;
  for (const View& view : views)
    if (reinterpret_cast<uintptr_t>(view.base()) % 0x10000 != 0) return 5;
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(views[0].base(), &region, sizeof region) == 0 || region.Type != MEM_MAPPED) return 6;
  return views.empty() ? 7 : 0;
}

CHILD_ROLE(UseUpAllAddresses) { return UseUpAddressSpace(); }
CHILD_ROLE(UseUpLimitedAddresses) {
  const rlimit limit = {1u << 30, 1u << 30};
  return setrlimit(RLIMIT_AS, &limit) == 0 ? UseUpAddressSpace() : 100;
}

TEST(Shortage, AllAddressesAreUsed) {
  if (kSanitized) GTEST_SKIP();
  EXPECT_EQ(ChildProcess("UseUpAllAddresses").Wait(), 0);
}
TEST(Shortage, TheLimitOfTheProcessIsReached) {
  if (kSanitized) GTEST_SKIP();
  EXPECT_EQ(ChildProcess("UseUpLimitedAddresses").Wait(), 0);
}

// Without any memory for it the walk goes on in pieces.
CHILD_ROLE(WalkWithoutMemory) {
  std::vector<void*> pieces(4000);
  for (void*& piece : pieces)  // every second page differs, so that the map has thousands of lines
    piece = mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  for (void* const piece : pieces) mprotect(piece, 4096, PROT_READ | PROT_WRITE);
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_AS, &none);
  // Nor from what the allocator still has.
  for (size_t bytes = 1 << 20; bytes >= 16; bytes /= 2)
    while (malloc(bytes) != nullptr) {
    }
  uint64_t address = 0;
  int regions = 0;
  for (MEMORY_BASIC_INFORMATION region; address < 0x100000000; ++regions) {
    if (VirtualQuery(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), &region, sizeof region) == 0) return 1;
    if (reinterpret_cast<uintptr_t>(region.BaseAddress) != address) return 2;
    address += region.RegionSize;
  }
  return regions > 4000 ? 0 : 3;
}
TEST(Shortage, AWalkNeedsNoMemory) {
  if (kSanitized) GTEST_SKIP();
  EXPECT_EQ(ChildProcess("WalkWithoutMemory").Wait(), 0);
}

TEST(Shortage, MoreThanMayBeLocked) {
  if (geteuid() == 0) {
    // A child without the right to lock more than the limit.
    const pid_t child = fork();
    if (child == 0) {
      const rlimit limit = {64 << 10, 64 << 10};
      const bool ready = setrlimit(RLIMIT_MEMLOCK, &limit) == 0 && setuid(65534) == 0;
      void* const block = VirtualAlloc(nullptr, 1 << 20, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
      const bool refused = !VirtualLock(block, 1 << 20) && GetLastError() == ERROR_WORKING_SET_QUOTA;
      _exit(ready && refused && VirtualLock(block, 4096) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  } else {
    GTEST_SKIP() << "needs to be root, to give the right up";
  }
}

}  // namespace
