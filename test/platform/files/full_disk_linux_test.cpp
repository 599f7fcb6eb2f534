// A disk of 64 KiB, mounted for the test where the user may do that.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

namespace {

class FullDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    disk_ = scratch_.Narrow("disk");
    std::filesystem::create_directory(disk_);
    mounted_ = mount("qel-test", disk_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64k") == 0;
    if (!mounted_) GTEST_SKIP() << "may not mount: errno " << errno;
  }
  ~FullDiskTest() override {
    if (mounted_) umount2(disk_.c_str(), MNT_DETACH);
  }
  std::wstring On(const char* name) const {
    return scratch_.Wide("disk") + L"/" + std::wstring(name, name + std::strlen(name));
  }
  std::string PathOn(const char* name) const { return disk_ + "/" + name; }

  ScratchFolder scratch_;
  std::string disk_;
  bool mounted_ = false;
};

}  // namespace

TEST_F(FullDiskTest, WriteAndLengthen) {
  FileHandle file(On("f"), kRW, 0, CREATE_NEW);
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

TEST_F(FullDiskTest, FailedCopyLeavesNoTarget) {
  WriteWholeFile(scratch_.Path() / "source", std::string(100'000, 'x'));
  WriteWholeFile(PathOn("old"), "old");
  for (const char* target : {"new", "old"}) {
    EXPECT_EQ(Ask([&] { return CopyFileW(scratch_.Wide("source").c_str(), On(target).c_str(), FALSE); }), Failure(112));
    EXPECT_FALSE(std::filesystem::exists(PathOn(target)));
  }
}

TEST_F(FullDiskTest, MoveToAnotherDisk) {
  WriteWholeFile(scratch_.Path() / "source", "moved");
  EXPECT_EQ(Ask([&] { return MoveFileW(scratch_.Wide("source").c_str(), On("target").c_str()); }), Success());
  EXPECT_EQ(ReadWholeFile(PathOn("target")), "moved");
  EXPECT_FALSE(std::filesystem::exists(scratch_.Path() / "source"));
  WriteWholeFile(scratch_.Path() / "source", "again");
  EXPECT_EQ(Ask([&] { return MoveFileW(scratch_.Wide("source").c_str(), On("target").c_str()); }), Failure(183));
  WriteWholeFile(scratch_.Path() / "source", std::string(100'000, 'x'));
  EXPECT_EQ(Ask([&] { return MoveFileW(scratch_.Wide("source").c_str(), On("large").c_str()); }), Failure(112));
  EXPECT_TRUE(std::filesystem::exists(scratch_.Path() / "source"));
  EXPECT_FALSE(std::filesystem::exists(PathOn("large")));
}
