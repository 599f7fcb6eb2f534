// Symbolic links in trees; Wine makes none.
#include "test/file/file_test.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

class DirectoryLink : public FileTest {
 protected:
  DirectoryLink() {
    fs::create_directories(Path("t/a"));
    fs::create_directories(Path("outside"));
    Write("t/a/1", "1");
    Write("outside/2", "22");
    fs::create_directory_symlink(Path("outside"), Path("t/link"));
    fs::create_directory_symlink("..", Path("t/a/loop"));
    fs::create_symlink("nowhere", Path("t/broken"));
  }
};

TEST_F(DirectoryLink, NoWalkGoesThroughALink) {
  unsigned long long size;
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, Wide("t").c_str(), &size));
  EXPECT_LT(size, 22u) << "not again and again";
  fs::remove(Path("t/broken"));
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, Wide("t").c_str(), &size));
  EXPECT_EQ(size, 1u);
  EXPECT_TRUE(CopyDirectoryTree(HOST, Wide("t").c_str(), Wide("copy").c_str()));
  EXPECT_TRUE(fs::exists(Path("copy/a/1")));
  EXPECT_FALSE(fs::exists(Path("copy/link")));
  EXPECT_FALSE(fs::exists(Path("copy/a/loop")));
}

TEST_F(DirectoryLink, DeletionTakesTheLinkAndLeavesWhatItLeadsTo) {
  Write("outside/read-only", "x");
  SetFileAttributesW(Wide("outside/read-only").c_str(), FILE_ATTRIBUTE_READONLY);
  fs::create_symlink(Path("outside/read-only"), Path("t/file-link"));
  fs::create_symlink("itself", Path("t/itself"));
  EXPECT_TRUE(DeleteDirectoryTree(HOST, Wide("t").c_str(), FALSE, FALSE));
  EXPECT_TRUE(fs::is_symlink(Path("t/link"))) << "a folder, left alone";
  EXPECT_TRUE(DeleteDirectoryTree(HOST, Wide("t").c_str(), TRUE, TRUE));
  EXPECT_FALSE(fs::exists(Path("t")));
  EXPECT_EQ(Read("outside/2"), "22");
  EXPECT_TRUE(GetFileAttributesW(Wide("outside/read-only").c_str()) & FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_F(DirectoryLink, TheStartFolderMayBeALink) {
  fs::create_directory_symlink("outside", Path("start"));
  unsigned long long size;
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, Wide("start").c_str(), &size));
  EXPECT_EQ(size, 2u);
  EXPECT_TRUE(DeleteDirectoryTree(HOST, Wide("start").c_str(), FALSE, TRUE));
  EXPECT_TRUE(fs::is_empty(Path("outside")));
}

}  // namespace
}  // namespace qel::test
