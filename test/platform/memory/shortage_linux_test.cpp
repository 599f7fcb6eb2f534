// A full disk, an address space that is used up, limits: each in a place or a process of its own.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"
#include "test/support/forked_child.h"
#include "test/support/small_disk.h"

using namespace qel::test;

namespace {

#ifdef QEL_SANITIZE
constexpr bool kSanitized = true;  // such a process has used most of its address space before main
#else
constexpr bool kSanitized = false;
#endif

TEST(Shortage, AFullDiskIsKnownAtTheCreation) {
  const SmallDisk disk("1m");
  if (!disk.IsMounted()) GTEST_SKIP() << "needs to be root, for a disk of 1 MiB";
  WriteWholeFile(disk.Path() / "file", "0123456789");
  const Handle file(CreateFileW(disk.Wide("file").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
  const auto create = [&](DWORD high, DWORD low) {
    return CreateFileMappingW(file, nullptr, PAGE_READWRITE, high, low, nullptr);
  };
  EXPECT_CALL(create(0, 4 << 20), nullptr, ERROR_DISK_FULL);
  EXPECT_CALL(create(0x7FFFFFFF, 0), nullptr, ERROR_DISK_FULL);
  EXPECT_EQ(std::filesystem::file_size(disk.Path() / "file"), 10u) << "a failure leaves the size";
  const Handle fits(create(0, 512 << 10));
  const View view(fits, FILE_MAP_WRITE, 0, 0);
  for (int i = 0; i < 512 << 10; i += 4096) view[i] = 1;
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
TEST(Shortage, EndsInAnErrorOrNeedsNothing) {
  if (kSanitized) GTEST_SKIP();
  for (const char* role : {"UseUpAllAddresses", "UseUpLimitedAddresses", "WalkWithoutMemory"})
    EXPECT_EQ(ChildProcess(role).Wait(), 0) << role;
}

std::string LockedKilobytes() {
  const std::string status = ReadWholeFile("/proc/self/status");
  const size_t start = status.find_first_of("0123456789", status.find("VmLck:"));
  return status.substr(start, status.find('\n', start) - start);
}

TEST(Shortage, MoreThanMayBeLocked) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root, to give the right up";
  const auto lock = [] {  // without the right to lock more than the limit
    const rlimit limit = {64 << 10, 64 << 10};
    const bool ready = setrlimit(RLIMIT_MEMLOCK, &limit) == 0 && setuid(65534) == 0;
    void* const block = VirtualAlloc(nullptr, 1 << 20, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    const bool locked = VirtualLock(block, 4096);
    const bool refused = !VirtualLock(block, 1 << 20) && GetLastError() == ERROR_WORKING_SET_QUOTA;
    return ready && locked && refused && LockedKilobytes() == "4 kB" ? 0 : 1;  // what was locked before stays so
  };
  EXPECT_EQ(RunInChild(lock), 0);
}

}  // namespace
