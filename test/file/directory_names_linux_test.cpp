// Trees as they are on this system: names that mean something else to Win32, special files, rights.
#include <sys/stat.h>
#include <unistd.h>

#include "test/file/tree_test.h"
#include "test/support/own_mounts.h"

namespace qel::test {
namespace {

class SystemTree : public DirectoryTree {
 protected:
  static mode_t ModeOf(const fs::path& path) {
    struct stat status = {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777;
  }
};

TEST_F(SystemTree, NoNameLeadsOutOfItsTree) {
  const std::string odd[] = {"..\\..\\outside", "\\outside", "4:3", "C:\\outside", "a*",    "a?",
                             "\"q\"",           "a",         "a.",  "a ",          "Co./f", "\xFF\xEF",
                             "\xEF\x81\x9C",    "x\\/\\y"};
  const auto make = [&] {
    unsigned long long size = 0;
    for (const std::string& name : odd) {
      fs::create_directories(Path("t/" + name).parent_path());
      WriteWholeFile(Path("t/" + name), "of " + name);
      size += name.size() + 3;
    }
    return size;
  };
  WriteWholeFile(Path("outside"), "kept");
  WriteWholeFile(Path("3"), "kept");
  const ScratchFolder current;
  const fs::path before = fs::current_path();
  fs::current_path(current.Path());
  WriteWholeFile("outside", "kept");
  const unsigned long long made = make();
  EXPECT_EQ(Size(Wide("t")), Told(true, made));
  EXPECT_TRUE(Copy("t", "copy"));
  for (const std::string& name : odd) EXPECT_EQ(ReadWholeFile(Path("copy/" + name)), "of " + name) << name;
  EXPECT_EQ(EntryCount("copy"), EntryCount("t"));
  for (const char* tree : {"t", "copy"}) {
    EXPECT_TRUE(Delete(tree, TRUE, TRUE));
    EXPECT_FALSE(Exists(tree));
  }
  EXPECT_EQ(Assertions(), Messages{});
  EXPECT_EQ(ReadWholeFile(Path("outside")) + ReadWholeFile(Path("3")) + ReadWholeFile("outside"), "keptkeptkept");
  fs::current_path(before);
}

TEST_F(SystemTree, WhatIsNoFileFailsAtOnce) {
  MakeFiles({"t/1", "t/z"});
  fs::create_symlink("nowhere", Path("t/broken"));
  ASSERT_EQ(mkfifo(Path("t/fifo").c_str(), 0600), 0);
  fs::create_symlink("/dev/zero", Path("t/zero"));
  EXPECT_EQ(Size(Wide("t")), Told(true, 6u));
  FakeClock clock;
  EXPECT_FALSE(Copy("t", "copy"));
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>{});
  EXPECT_EQ(FileMessages().size(), 3u);
  EXPECT_EQ(Assertions().size(), 3u);
  EXPECT_EQ(EntryCount("copy"), 2u) << "the files";
  EXPECT_TRUE(Delete("t", TRUE, TRUE));
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_F(SystemTree, NewFoldersHaveTheRightsOfTheirSources) {
  MakeFiles({"t/private/f", "t/open/f", "target/open/f"});
  chmod(Path("t").c_str(), 0750);
  chmod(Path("t/private").c_str(), 0700);
  chmod(Path("target/open").c_str(), 0711);
  EXPECT_TRUE(Copy("t", "new/target"));
  EXPECT_EQ(ModeOf(Path("new/target")), 0750u);
  EXPECT_EQ(ModeOf(Path("new/target/private")), 0700u);
  EXPECT_EQ(ModeOf(Path("new/target/open")), ModeOf(Path("t/open")));
  EXPECT_TRUE(Copy("t", "target"));
  EXPECT_EQ(ModeOf(Path("target/open")), 0711u) << "it was there";
}

// As a user whom rights concern: a folder that may be listed but not searched, and an empty one of that kind.
CHILD_ROLE(WalkWithoutRights) {
  // What the layer keeps for that user goes with the process, where the system allows mounts of its own.
  [[maybe_unused]] const bool isPrivate = geteuid() == 0 && UsePrivateSharedMemory();
  if (geteuid() == 0 && setuid(65534) != 0) return 1;
  const ScratchFolder folder;
  for (const char* name : {"t/no search/f", "t/z"}) {
    fs::create_directories((folder.Path() / name).parent_path());
    WriteWholeFile(folder.Path() / name, "12345");
  }
  fs::create_directories(folder.Path() / "empty/no search");
  for (const char* name : {"t/no search", "empty/no search"}) chmod((folder.Path() / name).c_str(), 0400);
  const std::wstring tree = folder.Wide("t");
  unsigned long long size = 0;
  const bool sizeFails = !GetFileSizeDirectoryTree(HOST, tree.c_str(), &size) && size == 5;
  const bool copyFails =
      !CopyDirectoryTree(HOST, tree.c_str(), folder.Wide("copy").c_str()) && fs::exists(folder.Path() / "copy/z");
  const bool deletionFails = !DeleteDirectoryTree(HOST, tree.c_str(), TRUE, TRUE) && !fs::exists(folder.Path() / "t/z");
  const bool emptyGoes = DeleteDirectoryTree(HOST, folder.Wide("empty").c_str(), TRUE, TRUE);
  chmod((folder.Path() / "t/no search").c_str(), 0700);
  Say(std::string(sizeFails ? "size " : "") + (copyFails ? "copy " : "") + (deletionFails ? "deletion " : "") +
      (emptyGoes ? "empty" : ""));
  return 0;
}

TEST_F(SystemTree, AnEntryThatCannotBeAskedAboutIsAFailure) {
  ChildProcess child("WalkWithoutRights");
  EXPECT_EQ(child.WaitForLine(), "size copy deletion empty");
}

TEST_F(SystemTree, AWalkVisits1024Folders) {
  const auto make = [this](const std::string& root, int folders) {
    for (int i = 1; i < folders; ++i) MakeFiles({root + "/" + std::to_string(i) + "/f"});
  };
  make("full", 1024);
  make("over", 1025);
  EXPECT_TRUE(Size(Wide("full")).first);
  EXPECT_TRUE(Copy("full", "copy"));
  EXPECT_TRUE(Delete("full", TRUE, TRUE));
  EXPECT_EQ(Assertions(), Messages{});

  EXPECT_FALSE(Size(Wide("over")).first);
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_FALSE(Copy("over", "copy2"));
  EXPECT_EQ(EntryCount("copy2"), 1023u);
  EXPECT_EQ(Assertions().size(), 2u) << "of the folder and of the entry";
  EXPECT_FALSE(Delete("over", TRUE, TRUE));
  EXPECT_EQ(EntryCount("over"), 1u);
  EXPECT_EQ(Assertions().size(), 2u) << "the folder too many, and the start folder that is not empty";
}

// Symbolic links in trees; Wine makes none.
class DirectoryLink : public DirectoryTree {
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
  const Told told = Size(Wide("t"));
  EXPECT_TRUE(told.first);
  EXPECT_LT(told.second, 22u) << "not again and again";
  fs::remove(Path("t/broken"));
  EXPECT_EQ(Size(Wide("t")), Told(true, 1u));
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
  EXPECT_EQ(Size(Wide("start")), Told(true, 2u));
  EXPECT_TRUE(DeleteDirectoryTree(HOST, Wide("start").c_str(), FALSE, TRUE));
  EXPECT_TRUE(fs::is_empty(Path("outside")));
}

}  // namespace
}  // namespace qel::test
