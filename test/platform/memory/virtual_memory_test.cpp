// Blocks, protections, queries and locks.
#include <gtest/gtest.h>

#include <vector>

#include "test/platform/memory/mapped_file.h"

using namespace qel::test;

namespace {

constexpr SIZE_T kPage = 4096;
constexpr DWORD kBoth = MEM_COMMIT | MEM_RESERVE;

class Block {
 public:
  Block(SIZE_T bytes, DWORD type = kBoth, DWORD protection = PAGE_READWRITE)
      : base_(static_cast<char*>(VirtualAlloc(nullptr, bytes, type, protection))) {}
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() {
    if (base_) VirtualFree(base_, 0, MEM_RELEASE);
  }
  char* base() const { return base_; }

 private:
  char* base_;
};

TEST(VirtualMemory, BadArguments) {
  const std::vector<std::tuple<SIZE_T, DWORD, DWORD>> bad = {
      {0, kBoth, PAGE_READWRITE}, {kPage, 0, PAGE_READWRITE}, {kPage, kBoth, 0}, {kPage, kBoth, 3}};
  for (const auto& [size, type, protection] : bad)
    EXPECT_CALL(VirtualAlloc(nullptr, size, type, protection), nullptr, ERROR_INVALID_PARAMETER);
  if (kLinux) {
    EXPECT_CALL(VirtualAlloc(nullptr, 0x7FFF0000, kBoth, PAGE_READWRITE), nullptr, ERROR_INVALID_PARAMETER);
  }
  MEMORY_BASIC_INFORMATION information;
  EXPECT_CALL(VirtualQuery(nullptr, &information, sizeof information - 1), SIZE_T{0}, ERROR_BAD_LENGTH);
}

TEST(VirtualMemory, OneByteIsAPage) {
  SetLastError(kUntouched);
  const Block block(1);
  char* const base = block.base();
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % 0x10000, 0u);
  EXPECT_LT(reinterpret_cast<uintptr_t>(base), 0x80000000u);
  for (SIZE_T i = 0; i < kPage; ++i) ASSERT_EQ(base[i], 0);
  const MEMORY_BASIC_INFORMATION information = Query(base);
  EXPECT_EQ(information.RegionSize, kPage);
  EXPECT_EQ(information.Type, MEM_PRIVATE);
  EXPECT_EQ(information.AllocationBase, base);
}

TEST(VirtualMemory, ReservedPagesAreCommittedAndGivenBack) {
  const Block block(8 * kPage, MEM_RESERVE, PAGE_READWRITE);
  char* const base = block.base();
  EXPECT_EQ(Query(base).State, MEM_RESERVE);
  EXPECT_EQ(Query(base).Protect, 0u);
  EXPECT_EQ(Query(base).RegionSize, 8 * kPage);
  EXPECT_EQ(VirtualAlloc(base + 2 * kPage + 5, kPage, MEM_COMMIT, PAGE_READWRITE), base + 2 * kPage);
  const MEMORY_BASIC_INFORMATION committed = Query(base + 3 * kPage);  // the byte 5 behind reaches into this page
  EXPECT_EQ(committed.State, MEM_COMMIT);
  EXPECT_EQ(committed.Protect, PAGE_READWRITE);
  EXPECT_EQ(committed.RegionSize, kPage);
  EXPECT_EQ(committed.AllocationBase, base);
  base[2 * kPage] = 'c';
  EXPECT_EQ(VirtualAlloc(base + 2 * kPage, kPage, MEM_COMMIT, PAGE_READWRITE), base + 2 * kPage);
  EXPECT_EQ(base[2 * kPage], 'c') << "committing again changes nothing";
  ASSERT_TRUE(VirtualFree(base + 2 * kPage, kPage, MEM_DECOMMIT));
  EXPECT_EQ(Query(base).RegionSize, 3 * kPage);
  ASSERT_TRUE(VirtualAlloc(base + 2 * kPage, kPage, MEM_COMMIT, PAGE_READWRITE));
  EXPECT_EQ(base[2 * kPage], 0);
  EXPECT_CALL(VirtualAlloc(base + 7 * kPage, 2 * 0x10000, MEM_COMMIT, PAGE_READWRITE), nullptr, ERROR_INVALID_ADDRESS);
  EXPECT_CALL(VirtualAlloc(base, kPage, MEM_RESERVE, PAGE_READWRITE), nullptr, ERROR_INVALID_ADDRESS);
}

TEST(VirtualMemory, ReleaseByTheFirstPageOnly) {
  char* const base = static_cast<char*>(VirtualAlloc(nullptr, 4 * kPage, kBoth, PAGE_READWRITE));
  const Handle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, nullptr));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  const DWORD noBlock = ByTarget<DWORD>(ERROR_INVALID_ADDRESS, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualFree(base, kPage, MEM_RELEASE), FALSE, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualFree(base, 0, 0), FALSE, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualFree(base, 0, MEM_RELEASE | MEM_DECOMMIT), FALSE, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualFree(view.base(), 0, MEM_RELEASE), FALSE, ERROR_INVALID_PARAMETER);
  for (void* const address : {static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234)})
    EXPECT_CALL(VirtualFree(address, 0, MEM_RELEASE), FALSE, noBlock);
  if (!OnWine()) {
    EXPECT_CALL(VirtualFree(base + kPage, 0, MEM_RELEASE), FALSE, ERROR_INVALID_ADDRESS);
  }
  EXPECT_CALL(VirtualFree(base + 8, 0, MEM_RELEASE), TRUE, kUntouched);
  EXPECT_EQ(Query(base).State, MEM_FREE);
  EXPECT_CALL(VirtualFree(base, 0, MEM_RELEASE), FALSE, noBlock);
}

TEST(VirtualMemory, NeighboursAreTwoAllocations) {
  const Block room(0x20000, MEM_RESERVE);
  char* const base = room.base();
  ASSERT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
  void* const low = VirtualAlloc(base, 0x10000, kBoth, PAGE_READWRITE);
  void* const high = VirtualAlloc(base + 0x10000, 0x10000, kBoth, PAGE_READWRITE);
  ASSERT_EQ(low, base);
  ASSERT_EQ(high, base + 0x10000);
  EXPECT_EQ(Query(low).RegionSize, 0x10000u) << "the system joins them, an allocation ends where it ends";
  EXPECT_EQ(Query(high).AllocationBase, high);
  VirtualFree(high, 0, MEM_RELEASE);  // the lower one is the guard's
}

TEST(VirtualMemory, Protections) {
  const Block block(4 * kPage);
  char* const base = block.base();
  DWORD previous = 0;
  ASSERT_TRUE(VirtualProtect(base + kPage, kPage, PAGE_READONLY, &previous));
  EXPECT_EQ(previous, PAGE_READWRITE);
  EXPECT_EQ(Query(base).RegionSize, kPage);
  EXPECT_EQ(Query(base + kPage).Protect, PAGE_READONLY);
  EXPECT_EQ(Query(base + kPage).AllocationProtect, PAGE_READWRITE);
  ASSERT_TRUE(VirtualProtect(base + 2 * kPage, kPage, PAGE_NOACCESS, &previous));
  EXPECT_EQ(Query(base + 2 * kPage).State, MEM_COMMIT) << "no access is not the same as reserved";
  EXPECT_EQ(Query(base + 2 * kPage).Protect, PAGE_NOACCESS);
  ASSERT_TRUE(VirtualProtect(base, 4 * kPage, PAGE_READWRITE, &previous));
  EXPECT_EQ(Query(base).RegionSize, 4 * kPage);
  for (const DWORD none : std::initializer_list<DWORD>{3, PAGE_WRITECOPY, PAGE_EXECUTE_WRITECOPY})
    EXPECT_CALL(VirtualProtect(base, kPage, none, &previous), FALSE, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualProtect(base, 0x40000, PAGE_READONLY, &previous), FALSE,
              ByTarget<DWORD>(ERROR_INVALID_ADDRESS, ERROR_INVALID_PARAMETER));
}

// Regions follow on each other without a gap, never two that could be one.
TEST(VirtualMemory, WalkCoversAllOfTheLowHalf) {
  const Block reserved(64 * kPage, MEM_RESERVE), used(kPage);
  bool sawReserved = false, sawUsed = false, sawModule = false;
  MEMORY_BASIC_INFORMATION last = {};
  uintptr_t address = 0;
  SetLastError(kUntouched);
  for (MEMORY_BASIC_INFORMATION region;
       address < 0x7FFE0000 && VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region);) {
    ASSERT_EQ(reinterpret_cast<uintptr_t>(region.BaseAddress), address);
    ASSERT_GT(region.RegionSize, 0u);
    ASSERT_EQ(region.RegionSize % kPage, 0u);
    if (kLinux) {  // Wine splits what it has reserved for itself
      EXPECT_FALSE(region.State == last.State && region.Protect == last.Protect && region.Type == last.Type &&
                   region.AllocationBase == last.AllocationBase && region.AllocationProtect == last.AllocationProtect)
          << region.BaseAddress;
    }
    if (region.State == MEM_FREE) {
      EXPECT_EQ(region.AllocationBase, nullptr);
      EXPECT_EQ(region.Protect, PAGE_NOACCESS);
      EXPECT_EQ(region.Type, 0u);
    }
    if (address == 0) {
      EXPECT_EQ(region.State, MEM_FREE);
    }
    sawReserved |= region.BaseAddress == reserved.base() && region.RegionSize == 64 * kPage;
    sawUsed |= region.BaseAddress == used.base() && region.State == MEM_COMMIT;
    sawModule |= region.Type == MEM_IMAGE && region.BaseAddress == GetModuleHandleA(nullptr);
    last = region;
    address += region.RegionSize;
  }
  EXPECT_GE(address, 0x7FFE0000u);
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_TRUE(sawReserved && sawUsed && sawModule);
}

TEST(VirtualMemory, QuerySeesOwnChangesInTheMiddleOfAWalk) {
  const Block first(0x10000);
  char* const base = first.base();
  const MEMORY_BASIC_INFORMATION region = Query(base);
  char* const next = base + region.RegionSize;
  if (Query(next).State != MEM_FREE) GTEST_SKIP() << "the next place is taken";
  Query(base);
  void* const block = VirtualAlloc(next, 0x10000, kBoth, PAGE_READWRITE);
  ASSERT_EQ(block, next);
  EXPECT_EQ(Query(next).State, MEM_COMMIT);
  Query(base);
  VirtualFree(next, 0, MEM_RELEASE);
  EXPECT_EQ(Query(next).State, MEM_FREE);
}

TEST(VirtualMemory, ModulesAreImages) {
  const MEMORY_BASIC_INFORMATION region = Query(reinterpret_cast<void*>(&Query));
  EXPECT_EQ(region.Type, MEM_IMAGE);
  EXPECT_EQ(region.AllocationBase, GetModuleHandleA(nullptr));
  EXPECT_EQ(region.AllocationProtect, PAGE_EXECUTE_WRITECOPY);
  EXPECT_EQ(region.Protect, PAGE_EXECUTE_READ);
  EXPECT_EQ(Query(GetModuleHandleA(nullptr)).Protect, PAGE_READONLY) << "the header";
}

TEST(VirtualMemory, Locks) {
  const Block block(4 * kPage), reserved(kPage, MEM_RESERVE);
  EXPECT_CALL(VirtualLock(block.base(), 2 * kPage), TRUE, kUntouched);
  EXPECT_CALL(VirtualUnlock(block.base(), kPage), TRUE, kUntouched);
  EXPECT_CALL(VirtualUnlock(block.base(), 2 * kPage), ByTarget<BOOL>(FALSE, TRUE),
              ByTarget<DWORD>(ERROR_NOT_LOCKED, kUntouched));
  EXPECT_CALL(VirtualUnlock(block.base() + kPage, 1), TRUE, kUntouched);
  if (kLinux) {
    EXPECT_CALL(VirtualLock(reserved.base(), kPage), FALSE, ERROR_NOACCESS);
    EXPECT_CALL(VirtualLock(reinterpret_cast<void*>(0x10000), kPage), FALSE, ERROR_NOACCESS);
    EXPECT_CALL(VirtualUnlock(reserved.base(), kPage), FALSE, ERROR_NOT_LOCKED);
  }
}

TEST(GlobalBlocks, FixedMemory) {
  for (const SIZE_T size : {0ul, 1ul, 100000ul}) {
    SetLastError(kUntouched);
    const HGLOBAL block = GlobalAlloc(GMEM_FIXED, size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(GetLastError(), kUntouched);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0u);
    EXPECT_EQ(GlobalFree(block), nullptr);
  }
  auto* const zeroed = static_cast<char*>(GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, 1000));
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(zeroed[i], 0);
  GlobalFree(zeroed);
  EXPECT_CALL(GlobalAlloc(GMEM_FIXED, 0xFFFFFF00), nullptr, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(GlobalFree(nullptr), nullptr);
  EXPECT_EQ(_heapchk(), _HEAPOK);
}

}  // namespace
