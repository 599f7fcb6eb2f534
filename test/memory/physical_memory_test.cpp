#include "qelibaselib/memory/physical_memory.h"

#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr unsigned long long kMiB = 1 << 20;
constexpr unsigned long long kDefaultFloor = 256 * kMiB;

class PhysicalMemory : public testing::Test {
 protected:
  ~PhysicalMemory() override { SetIsPhysMemShortage(kDefaultFloor); }

  BOOL IsShort(DWORD limitPercent, DWORD load, unsigned long long available) {
    auto query = STAND_IN(GlobalMemoryStatusEx, [&](int, MEMORYSTATUSEX* status) {
      EXPECT_EQ(status->dwLength, 64u);
      const auto* bytes = reinterpret_cast<const BYTE*>(status);
      EXPECT_EQ(std::count(bytes + sizeof status->dwLength, bytes + sizeof *status, 0), 60) << "cleared before";
      status->dwMemoryLoad = load;
      status->ullAvailPhys = available;
      return TRUE;
    });
    const BOOL result = IsPhysMemShortage(limitPercent);
    EXPECT_EQ(query.Calls(), 1);
    return result;
  }
};

TEST_F(PhysicalMemory, IsShortFromTheLoadOnOrBelowTheFloor) {
  EXPECT_EQ(IsShort(60, 59, kDefaultFloor), 0);
  EXPECT_EQ(IsShort(60, 60, kDefaultFloor), 1);
  EXPECT_EQ(IsShort(60, 59, kDefaultFloor - 1), 1);
  EXPECT_EQ(IsShort(101, 100, kDefaultFloor), 0);
  EXPECT_EQ(IsShort(0, 0, ~0ull), 1);
}

TEST_F(PhysicalMemory, FloorHas64Bits) {
  SetIsPhysMemShortage((6ull << 32) + 1);
  EXPECT_EQ(IsShort(100, 50, 6ull << 32), 1);
  EXPECT_EQ(IsShort(100, 50, (6ull << 32) + 1), 0);
  SetIsPhysMemShortage(0);
  EXPECT_EQ(IsShort(100, 50, 0), 0);
}

TEST_F(PhysicalMemory, AnUnknownStateCountsAsShort) {
  auto query = FAIL_CALL(GlobalMemoryStatusEx, 1, ERROR_INVALID_PARAMETER, FALSE);
  EXPECT_EQ(IsPhysMemShortage(100), 1);
}

TEST_F(PhysicalMemory, AnswersForTheRealMachine) {
  EXPECT_EQ(IsPhysMemShortage(0), 1);
  SetIsPhysMemShortage(0);
  EXPECT_EQ(IsPhysMemShortage(101), 0);
}

}  // namespace
}  // namespace qel::test
