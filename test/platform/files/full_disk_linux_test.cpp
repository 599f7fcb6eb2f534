// A disk of 64 KiB, mounted for the test where the user may do that.
#include "test/platform/files/file_calls.h"
#include "test/support/small_disk.h"

using namespace qel::test;

namespace {

class FullDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!disk_.IsMounted()) GTEST_SKIP() << "only root may mount a disk";
  }
  const SmallDisk disk_{"64k"};
  const ScratchFolder scratch_;
  const std::filesystem::path source_ = scratch_.Path() / "source";
};

}  // namespace

TEST_F(FullDiskTest, WriteAndLengthen) {
  FileHandle file(disk_.Wide("f"), kRW, 0, CREATE_NEW);
  const std::string data(100'000, 'x');
  DWORD written = 0;
  EXPECT_EQ(Ask([&] { return WriteFile(file.get(), data.data(), 100'000, &written, nullptr); }), Failure(112));
  EXPECT_LT(written, 100'000u);
  LARGE_INTEGER at;
  at.QuadPart = 0;
  SetFilePointerEx(file.get(), at, nullptr, FILE_BEGIN);
  EXPECT_TRUE(SetEndOfFile(file.get()));
  at.QuadPart = 1 << 20;
  SetFilePointerEx(file.get(), at, nullptr, FILE_BEGIN);
  EXPECT_EQ(Ask([&] { return SetEndOfFile(file.get()); }), Failure(112));
  LARGE_INTEGER size;
  EXPECT_TRUE(GetFileSizeEx(file.get(), &size));
  EXPECT_EQ(size.QuadPart, 0);
}

TEST_F(FullDiskTest, MoveToAnotherDisk) {
  const struct {
    const char* target;
    std::string contents;
    Outcome outcome;
  } rows[] = {{"target", "moved", Success()},
              {"target", "again", Failure(183)},
              {"large", std::string(100'000, 'x'), Failure(112)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.contents.substr(0, 5));
    WriteWholeFile(source_, row.contents);
    EXPECT_EQ(Ask([&] { return MoveFileW(source_.wstring().c_str(), disk_.Wide(row.target).c_str()); }), row.outcome);
    EXPECT_EQ(std::filesystem::exists(source_), !row.outcome.succeeded);
  }
  EXPECT_EQ(ReadWholeFile(disk_.Path() / "target"), "moved");
  EXPECT_FALSE(std::filesystem::exists(disk_.Path() / "large"));
}
