// The address space as the queries show it.
#include <gtest/gtest.h>

#include <vector>

#include "test/platform/memory/mapped_file.h"

using namespace qel::test;

namespace {

constexpr SIZE_T kPage = 4096;

TEST(VirtualMemory, WhatIsNoBlock) {
  const Block block(2 * kPage);
  EXPECT_CALL(VirtualAlloc(nullptr, 0x7FFF0000, kCommitAndReserve, PAGE_READWRITE), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(VirtualFree(block.base() + kPage, 0, MEM_RELEASE), FALSE, ERROR_INVALID_ADDRESS);
}

TEST(VirtualMemory, NeighboursAreTwoAllocations) {
  const Block room(0x20000, MEM_RESERVE);
  char* const base = room.base();
  ASSERT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
  void* const low = VirtualAlloc(base, 0x10000, kCommitAndReserve, PAGE_READWRITE);
  void* const high = VirtualAlloc(base + 0x10000, 0x10000, kCommitAndReserve, PAGE_READWRITE);
  ASSERT_EQ(low, base);
  ASSERT_EQ(high, base + 0x10000);
  EXPECT_EQ(Query(low).RegionSize, 0x10000u) << "the system joins them, an allocation ends where it ends";
  EXPECT_EQ(Query(high).AllocationBase, high);
  VirtualFree(high, 0, MEM_RELEASE);  // the lower one is the guard's
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
    EXPECT_FALSE(region.State == last.State && region.Protect == last.Protect && region.Type == last.Type &&
                 region.AllocationBase == last.AllocationBase && region.AllocationProtect == last.AllocationProtect)
        << region.BaseAddress;
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
  void* const block = VirtualAlloc(next, 0x10000, kCommitAndReserve, PAGE_READWRITE);
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

}  // namespace
