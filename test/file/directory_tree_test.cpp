#include "test/file/tree_test.h"

namespace qel::test {
namespace {
TEST_F(DirectoryTree, AllFilesCount) {
  MakeFiles({"t/1", "t/.hidden", "t/a/no extension", "t/a/b/c/deep.txt", "beside"});
  SetFileAttributesW(Wide("t/1").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  fs::create_directories(Path("t/..."));  // not a dot entry where the system allows it
  EXPECT_EQ(Size(Wide("t")), Told(true, 3u + 9 + 16 + 16));
  EXPECT_EQ(Size(L"\"" + Wide("t") + L"\\\\\\\""), Told(true, 44u)) << "quotes and backslashes at the end";

  fs::create_directories(Path("empty"));
  EXPECT_EQ(Size(Wide("empty")), Told(true, 0u));
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_F(DirectoryTree, ThereMustBeAFolder) {
  MakeFiles({"file"});
  fs::current_path(Path());  // an empty path must not stand for it
  const std::wstring missing = Wide("no"), file = Wide("file");
  for (const wchar_t* path : {missing.c_str(), file.c_str(), L"", L"\"\"", static_cast<const wchar_t*>(nullptr)}) {
    unsigned long long size = 99;
    EXPECT_FALSE(GetFileSizeDirectoryTree(HOST, path, &size));
    EXPECT_EQ(size, 0u);
    EXPECT_FALSE(DeleteDirectoryTree(HOST, path, TRUE, TRUE));
    EXPECT_FALSE(CopyDirectoryTree(HOST, path, Wide("target").c_str()));
  }
  EXPECT_TRUE(Exists("file"));
  EXPECT_FALSE(Exists("target"));
  fs::current_path(Path().parent_path());
}

TEST_F(DirectoryTree, DeletionGoesAsFarAsAsked) {
  const auto make = [&] {
    MakeFiles({"t/1", "t/2", "t/a/3", "t/a/b/4"});
    MakeReadOnly("t/2");
    MakeReadOnly("t/a/b/4");
  };
  make();
  EXPECT_TRUE(Delete("t", FALSE, FALSE));
  EXPECT_EQ(EntryCount("t"), 1u);
  EXPECT_TRUE(Exists("t/a/3"));

  EXPECT_FALSE(Delete("t", TRUE, FALSE)) << "a folder that is not empty";
  EXPECT_TRUE(Exists("t/a/3"));
  EXPECT_EQ(Assertions().size(), 1u);

  make();
  EXPECT_TRUE(Delete("t", FALSE, TRUE));
  EXPECT_EQ(EntryCount("t"), 0u);
  make();
  EXPECT_TRUE(Delete("t", TRUE, TRUE));
  EXPECT_FALSE(Exists("t"));
  EXPECT_EQ(Assertions(), Messages{});
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(DirectoryTree, AFileInUseIsTheOnlyOneThatStays) {
  MakeFiles({"t/1", "t/a/held", "t/a/x", "t/b/2"});
  FileHolder holder(Text("t/a/held"));
  FakeClock clock;
  const unsigned long handles = OpenHandleCount();
  EXPECT_FALSE(Delete("t", TRUE, TRUE));
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(11, 100));
  EXPECT_EQ(FileMessages().size(), 1u);
  EXPECT_EQ(Assertions().size(), 4u) << "the file, its folder, the failed sub-walk, the start folder";
  EXPECT_EQ(EntryCount("t"), 1u);
  EXPECT_EQ(EntryCount("t/a"), 1u);
  EXPECT_EQ(OpenHandleCount(), handles);
}

TEST_F(DirectoryTree, CopyTakesAllAndOverwrites) {
  MakeFiles({"t/1", "t/a/3", "t/a/b/4", "target/a/3"});
  fs::create_directories(Path("t/empty"));
  Write("target/a/3", "longer than what comes");
  Write("target/a/other", "stays");
  MakeReadOnly("t/1");
  EXPECT_TRUE(Copy("t", "target"));
  for (const char* file : {"1", "a/3", "a/b/4"}) {
    const std::string name = file;
    EXPECT_EQ(ReadWholeFile(Path("target") / name), ReadWholeFile(Path("t") / name)) << name;
  }
  EXPECT_TRUE(Exists("target/empty"));
  EXPECT_EQ(Read("target/a/other"), "stays");
  EXPECT_TRUE(GetFileAttributesW(Wide("target/1").c_str()) & FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(Assertions(), Messages{});
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(DirectoryTree, RelativePathsStartAtTheCurrentFolder) {
  MakeFiles({"t/1", "t/a/2", "here/3"});
  fs::current_path(Path("here"));
  for (const wchar_t* path : {L"..\\t", L"..\\here\\..\\t\\"}) {
    EXPECT_EQ(Size(path), Told(true, 8u)) << path;
  }
  EXPECT_EQ(Size(L"."), Told(true, 6u));
  EXPECT_TRUE(CopyDirectoryTree(HOST, L"..\\t", L"..\\new\\copy"));
  EXPECT_TRUE(Exists("new/copy/a/2"));
  EXPECT_FALSE(CopyDirectoryTree(HOST, L"..", L"inside")) << "into itself, which the two texts do not show";
  EXPECT_TRUE(DeleteDirectoryTree(HOST, L"..\\t", TRUE, TRUE));
  EXPECT_FALSE(Exists("t"));
  EXPECT_EQ(Assertions().size(), 1u);
  fs::current_path(Path().parent_path());
}

TEST_F(DirectoryTree, NoCopyGoesIntoItself) {
  MakeFiles({"Tree/1", "Tree/sub/2"});
  const std::vector<std::string> targets = {"Tree", "tREE", "Tree/sub", "Tree/new/deeper", "TREE/new"};
  for (const std::string& target : targets) EXPECT_FALSE(Copy("Tree", target)) << target;
  EXPECT_FALSE(CopyDirectoryTree(HOST, (Wide("Tree") + L"\\\\").c_str(), Wide("Tree/sub").c_str()));
  EXPECT_EQ(EntryCount(""), 1u);
  EXPECT_EQ(EntryCount("Tree"), 2u);
  EXPECT_EQ(EntryCount("Tree/sub"), 1u);
  EXPECT_EQ(Assertions().size(), targets.size() + 1);
  EXPECT_TRUE(Copy("Tree/sub", "Tree")) << "out of a sub-folder is another matter";
  EXPECT_TRUE(Copy("Tree", "Tree2")) << "a name that only begins alike";
}

TEST_F(DirectoryTree, AFileThatCannotBeCopiedStopsNothing) {
  MakeFiles({"t/1", "t/2", "t/a/3"});
  FileHolder holder(Text("t/1"));
  FakeClock clock;
  EXPECT_FALSE(Copy("t", "target"));
  EXPECT_TRUE(Exists("target/2"));
  EXPECT_TRUE(Exists("target/a/3"));
  EXPECT_FALSE(Exists("target/1"));
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(10, 1000));
  EXPECT_EQ(Assertions().size(), 1u);
  const std::vector<LogLine> lines = TakeLines(channel::kFileOperation);
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_TRUE(lines[0].sourceFile.ends_with("file/directory_tree.cpp")) << lines[0].sourceFile;
  EXPECT_TRUE(lines[0].message.ends_with(", 0, 10000, 1000)")) << lines[0].message;
}

TEST_F(DirectoryTree, PathsEndAt259Characters) {
  fs::path fitting = Path("t");
  while (fitting.string().size() < 250) fitting /= "d";
  fs::create_directories(fitting);
  WriteWholeFile(fitting / "f", "12345");
  EXPECT_EQ(Size(Wide("t")), Told(true, 5u));
  EXPECT_TRUE(Delete("t", TRUE, TRUE)) << "a hundred levels";

  fs::path beyond = fitting;
  for (int i = 0; i < 100; ++i) beyond /= "d";
  std::error_code error;
  fs::create_directories(beyond, error);
  if (error) GTEST_SKIP() << "no longer paths here: " << error.message();
  ScratchFolder current;
  WriteWholeFile(current.Path() / "bystander", "x");
  fs::current_path(current.Path());
  EXPECT_FALSE(Size(Wide("t")).first);
  EXPECT_FALSE(Copy("t", "copy"));
  EXPECT_FALSE(Delete("t", TRUE, TRUE));
  EXPECT_TRUE(fs::exists(beyond)) << "nothing of it can be reached";
  EXPECT_TRUE(fs::exists("bystander"));
  fs::current_path(Path().parent_path());
}

TEST_F(DirectoryTree, AFolderThatCannotBeReadIsAnError) {
  MakeFiles({"t/1", "t/a/2", "t/b/3"});
  const auto secondFolderFails = [](const auto& call) {
    auto find = STAND_IN(FindFirstFileW, [](int, LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
      if (fs::path(pattern).parent_path().filename() == "a") {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      }
      return FindFirstFileW(pattern, data);
    });
    EXPECT_FALSE(call());
  };
  Told told;
  secondFolderFails([&] { return (told = Size(Wide("t"))).first; });
  EXPECT_EQ(told.second, 8u) << "all but the unreadable folder";
  EXPECT_EQ(Assertions().size(), 1u);
  secondFolderFails([&] { return Copy("t", "copy"); });
  EXPECT_TRUE(Exists("copy/b/3"));
  EXPECT_EQ(Assertions().size(), 2u);
  secondFolderFails([&] { return Delete("t", TRUE, TRUE); });
  EXPECT_TRUE(Exists("t/a/2"));
  EXPECT_FALSE(Exists("t/b"));
}

TEST_F(DirectoryTree, ABrokenEnumerationIsAnError) {
  MakeFiles({"t/1", "t/2"});
  {
    auto next = FAIL_CALL(FindNextFileW, 3, ERROR_READ_FAULT, FALSE);
    EXPECT_EQ(Size(Wide("t")), Told(false, 3u));
  }
  fs::create_directories(Path("empty"));
  auto close = STAND_IN(FindClose, [](int, HANDLE find) {
    FindClose(find);
    return FALSE;
  });
  EXPECT_FALSE(Delete("empty", FALSE, TRUE));
  EXPECT_EQ(Assertions().size(), 2u);
}

}  // namespace
}  // namespace qel::test
