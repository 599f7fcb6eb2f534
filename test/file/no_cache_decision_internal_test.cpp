// The dormant switch, turned on: nothing in the library does that.
#include <gtest/gtest.h>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/file.h"
#include "qelibaselib/file/no_cache_decision.h"
#include "qelibaselib/settings/flush_statistics.h"
#include "qelibaselib/settings/settings.h"
#include "test/support/log_folder.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

constexpr DWORD kLimitBytes = 100;
constexpr DWORD kAnyLoad = 101, kNoLoad = 0;  // percent

class NoCacheDecision : public testing::Test {
 protected:
  NoCacheDecision() {
    WriteWholeFile(folder_.Path() / "x", "0123456789");
    VemoSetNoCacheFlushLimit(kLimitBytes, kAnyLoad);
    no_cache::enabled = true;
  }
  ~NoCacheDecision() override { no_cache::enabled = false; }

  ScopedFile Open(DWORD flags = FILE_ATTRIBUTE_NORMAL) {
    return ScopedFile(CreateFileW(folder_.Wide("x").c_str(), GENERIC_READ | GENERIC_WRITE, 3, nullptr, OPEN_EXISTING,
                                  flags, nullptr));
  }
  static void MoveTo(const ScopedFile& file, LONGLONG position, bool end = false) {
    LARGE_INTEGER distance;
    distance.QuadPart = position;
    ASSERT_TRUE(SetFilePointerEx(file.Get(), distance, nullptr, FILE_BEGIN));
    ASSERT_TRUE(!end || SetEndOfFile(file.Get()));
  }

  ScratchFolder folder_;
};

TEST_F(NoCacheDecision, OnlyForSmallFilesWhileMemoryIsPlentiful) {
  const ScopedFile file = Open();
  EXPECT_TRUE(no_cache::AppliesToWrite(file.Get(), kLimitBytes - 1));
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), kLimitBytes));
  MoveTo(file, 90);
  EXPECT_TRUE(no_cache::AppliesToWrite(file.Get(), 9));
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), 10));
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), 0xFFFFFFFF)) << "the sum does not wrap";
  EXPECT_TRUE(no_cache::AppliesToFlush(file.Get()));

  VemoSetNoCacheFlushLimit(kLimitBytes, kNoLoad);
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), 1));
  EXPECT_FALSE(no_cache::AppliesToFlush(file.Get()));
  VemoSetNoCacheFlushLimit(kLimitBytes, kAnyLoad);

  MoveTo(file, kLimitBytes, true);
  MoveTo(file, 0);
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), 1));
  EXPECT_FALSE(no_cache::AppliesToFlush(file.Get()));

  no_cache::enabled = false;
  MoveTo(file, 0, true);
  EXPECT_FALSE(no_cache::AppliesToWrite(file.Get(), 1));
  EXPECT_FALSE(no_cache::AppliesToFlush(file.Get()));
}

TEST_F(NoCacheDecision, AFileWithoutSizeIsAnAssertion) {
  TakeLines(channel::kAssert);
  EXPECT_FALSE(no_cache::AppliesToFlush(INVALID_HANDLE_VALUE));
  EXPECT_TRUE(TakeLines(channel::kAssert).empty());
  EXPECT_FALSE(no_cache::AppliesToFlush(HANDLE(0x7ABCDEF0)));
  EXPECT_FALSE(no_cache::AppliesToWrite(HANDLE(0x7ABCDEF0), 1));
  EXPECT_EQ(TakeLines(channel::kAssert).size(), 2u);
}

// A handle for overlapped calls takes no plain WriteFile: what arrives has come through a view.
TEST_F(NoCacheDecision, WritesGoThroughViewsAndFlushesAreLeftOut) {
  const ScopedFile file = Open(FILE_FLAG_OVERLAPPED);
  DWORD written = 0;
  EXPECT_TRUE(WriteFileX(1, "host.cpp", file.Get(), "abc", 3, &written, nullptr));
  EXPECT_EQ(written, 3u);
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "x"), "abc3456789");
  VemoClearFVOFInf();
  EXPECT_TRUE(FlushViewOfFileX(1, "host.cpp", nullptr, 0, file.Get())) << "not looked at";
  EXPECT_EQ(VemoGetFVOFInf()->callCount, 0u);

  no_cache::enabled = false;
  EXPECT_FALSE(WriteFileX(1, "host.cpp", file.Get(), "abc", 3, &written, nullptr));
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_FALSE(FlushViewOfFileX(1, "host.cpp", nullptr, 0, file.Get()));
  EXPECT_EQ(VemoGetFVOFInf()->callCount, 1u);
}

}  // namespace
}  // namespace qel::test
