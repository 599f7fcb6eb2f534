// IsBadReadPtr and IsBadWritePtr, with and without a guard around.

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/provoke.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr SIZE_T kPage = PageBuffer::kPage;

// Three pages: read-write, read-only, none.
class Probe : public testing::Test {
 protected:
  Probe() { buffer_.Protect(1, PAGE_READONLY); }
  PageBuffer buffer_{2};
  BYTE* const pages_ = buffer_.Begin();
};

TEST_F(Probe, LooksAtEveryPageAndChangesNothing) {
  pages_[0] = 0x5A;
  EXPECT_FALSE(IsBadReadPtr(pages_, 2 * kPage));
  EXPECT_TRUE(IsBadReadPtr(pages_, 2 * kPage + 1));
  EXPECT_TRUE(IsBadReadPtr(pages_ + 2 * kPage - 1, 2));
  EXPECT_FALSE(IsBadWritePtr(pages_, kPage));
  EXPECT_TRUE(IsBadWritePtr(pages_, kPage + 1));
  EXPECT_TRUE(IsBadWritePtr(pages_ + kPage, 1));
  EXPECT_TRUE(IsBadWritePtr(const_cast<char*>("constant"), 1));
  EXPECT_EQ(pages_[0], 0x5A);
}

TEST_F(Probe, SizeZeroIsNeverBadAndAWrapAlwaysIs) {
  EXPECT_FALSE(IsBadReadPtr(nullptr, 0));
  EXPECT_FALSE(IsBadWritePtr(pages_ + 2 * kPage, 0));
  EXPECT_TRUE(IsBadReadPtr(nullptr, 1));
  EXPECT_TRUE(IsBadReadPtr(pages_, ~SIZE_T{0}));
  EXPECT_TRUE(IsBadWritePtr(pages_, ~SIZE_T{0} - reinterpret_cast<ULONG_PTR>(pages_) + 2));
}

TEST_F(Probe, LeavesAGuardAlone) {
  bool bad = false, good = true;
  EXPECT_NO_THROW(fault::Run([&] {
    bad = IsBadReadPtr(pages_ + 2 * kPage, 1) && IsBadWritePtr(pages_ + kPage, 1);
    good = !IsBadReadPtr(pages_, 1);
  }));
  EXPECT_TRUE(bad);
  EXPECT_TRUE(good);
  std::thread([&] { EXPECT_TRUE(IsBadReadPtr(BadPointer(), 4)); }).join();
}

}  // namespace
}  // namespace qel::test
