// Slow under Wine, which looks through a folder for every name in it.
#include "test/file/tree_test.h"

namespace qel::test {
namespace {

class FolderLimit : public DirectoryTree {
 protected:
  // The root folder with `count` - 1 folders in it.
  void MakeFolders(const std::string& root, int count) {
    for (int i = 1; i < count; ++i) fs::create_directories(folder_.Path() / root / std::to_string(i));
  }
};

TEST_F(FolderLimit, AWalkVisits1024Folders) {
  MakeFolders("full", 1024);
  MakeFolders("over", 1025);
  for (const char* root : {"full", "over"}) {
    for (int i = 1; i < (root[0] == 'f' ? 1024 : 1025); ++i)
      WriteWholeFile(folder_.Path() / root / std::to_string(i) / "f", "x");
  }
  unsigned long long size;
  EXPECT_TRUE(Size(folder_.Wide("full"), size));
  EXPECT_EQ(size, 1023u);
  EXPECT_TRUE(Copy("full", "copy"));
  EXPECT_TRUE(Delete("full", TRUE, TRUE));
  EXPECT_EQ(Assertions(), Messages{});

  EXPECT_FALSE(Size(folder_.Wide("over"), size));
  EXPECT_EQ(size, 1023u);
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_FALSE(Copy("over", "copy2"));
  EXPECT_EQ(EntryCount("copy2"), 1023u);
  EXPECT_EQ(Assertions().size(), 2u) << "of the folder and of the entry";
  EXPECT_FALSE(Delete("over", TRUE, TRUE));
  EXPECT_EQ(EntryCount("over"), 1u);
  EXPECT_EQ(Assertions().size(), 2u) << "the folder too many, and the start folder that is not empty";
}

}  // namespace
}  // namespace qel::test
