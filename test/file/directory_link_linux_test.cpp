// Symbolic links in trees; Wine makes none.
#include "test/file/file_test.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

class DirectoryLink : public FileTest {
 protected:
  DirectoryLink() {
    fs::create_directories(folder_.Path() / "t/a");
    fs::create_directories(folder_.Path() / "outside");
    WriteWholeFile(folder_.Path() / "t/a/1", "1");
    WriteWholeFile(folder_.Path() / "outside/2", "22");
    fs::create_directory_symlink(folder_.Path() / "outside", folder_.Path() / "t/link");
    fs::create_directory_symlink("..", folder_.Path() / "t/a/loop");
    fs::create_symlink("nowhere", folder_.Path() / "t/broken");
  }
};

TEST_F(DirectoryLink, NoWalkGoesThroughALink) {
  unsigned long long size;
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, folder_.Wide("t").c_str(), &size));
  EXPECT_LT(size, 22u) << "not again and again";
  fs::remove(folder_.Path() / "t/broken");
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, folder_.Wide("t").c_str(), &size));
  EXPECT_EQ(size, 1u);
  EXPECT_TRUE(CopyDirectoryTree(HOST, folder_.Wide("t").c_str(), folder_.Wide("copy").c_str()));
  EXPECT_TRUE(fs::exists(folder_.Path() / "copy/a/1"));
  EXPECT_FALSE(fs::exists(folder_.Path() / "copy/link"));
  EXPECT_FALSE(fs::exists(folder_.Path() / "copy/a/loop"));
}

TEST_F(DirectoryLink, DeletionTakesTheLinkAndLeavesWhatItLeadsTo) {
  WriteWholeFile(folder_.Path() / "outside/read-only", "x");
  SetFileAttributesW(folder_.Wide("outside/read-only").c_str(), FILE_ATTRIBUTE_READONLY);
  fs::create_symlink(folder_.Path() / "outside/read-only", folder_.Path() / "t/file-link");
  fs::create_symlink("itself", folder_.Path() / "t/itself");
  EXPECT_TRUE(DeleteDirectoryTree(HOST, folder_.Wide("t").c_str(), FALSE, FALSE));
  EXPECT_TRUE(fs::is_symlink(folder_.Path() / "t/link")) << "a folder, left alone";
  EXPECT_TRUE(DeleteDirectoryTree(HOST, folder_.Wide("t").c_str(), TRUE, TRUE));
  EXPECT_FALSE(fs::exists(folder_.Path() / "t"));
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "outside/2"), "22");
  EXPECT_TRUE(GetFileAttributesW(folder_.Wide("outside/read-only").c_str()) & FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_F(DirectoryLink, TheStartFolderMayBeALink) {
  fs::create_directory_symlink("outside", folder_.Path() / "start");
  unsigned long long size;
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, folder_.Wide("start").c_str(), &size));
  EXPECT_EQ(size, 2u);
  EXPECT_TRUE(DeleteDirectoryTree(HOST, folder_.Wide("start").c_str(), FALSE, TRUE));
  EXPECT_TRUE(fs::is_empty(folder_.Path() / "outside"));
}

}  // namespace
}  // namespace qel::test
