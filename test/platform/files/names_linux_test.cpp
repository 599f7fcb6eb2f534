// What only this system has: names that are no text, links, one root without drives.
#include <sys/stat.h>
#include <unistd.h>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

class LinuxNamesTest : public FileTest {};

TEST_F(LinuxNamesTest, BytesThatAreNoTextGoRoundTrip) {
  Write("gr\xC3\xBC\xC3\x9F");
  Write("bad\xFF\xC3");
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(At("*").c_str(), &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  std::wstring names;
  do {
    names += data.cFileName + std::wstring(L"/");
    if (data.cFileName[0] != L'.') {
      EXPECT_EQ(Delete(data.cFileName), Success());
    }
  } while (FindNextFileW(find, &data));
  FindClose(find);
  EXPECT_EQ(names, L"./../bad\xDCFF\xDCC3/gr\xFC\xDF/");
  EXPECT_TRUE(std::filesystem::is_empty(scratch.Path()));
  EXPECT_EQ(Create(L"x\xD800", kW, 0, CREATE_NEW), Failure(123));
}

TEST_F(LinuxNamesTest, NamesThatEndInDotsOrBlanksStayWithinReach) {
  Write("a");
  Write("a.", "dot");
  Write("a ", "blank");
  EXPECT_EQ(Delete(L"a."), Success());
  EXPECT_EQ(Delete(L"a "), Success());
  EXPECT_EQ(Read("a"), "text");
  EXPECT_EQ(Delete(L"a."), Success());
  EXPECT_FALSE(Exists("a"));
}

TEST_F(LinuxNamesTest, SeparatorsAndColons) {
  MakeFolder("12:30");
  EXPECT_EQ(Create(scratch.Wide() + L"\\12:30/x", kW, 0, CREATE_NEW), Success(0));
  EXPECT_TRUE(Exists("12:30/x"));
  EXPECT_EQ(Create(L"\\\\?\\" + scratch.Wide() + L"\\12:30\\x", kW, 0, OPEN_EXISTING), Success(0));
  EXPECT_EQ(Create(L"/../../dev/null", kW, 0, OPEN_EXISTING), Success(0));
  EXPECT_EQ(Create(L"C:", kR, 0, OPEN_EXISTING), Failure(3));
  EXPECT_EQ(Create(L"/", kR, 0, OPEN_EXISTING), Failure(3));
  EXPECT_EQ(Create(L"/", kR, 0, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS), Success(0));
  EXPECT_EQ(Find(L"/"), Failure(2));
}

TEST_F(LinuxNamesTest, NoWalkLeavesItsTreeByALink) {
  MakeFolder("outside");
  Write("outside/kept");
  MakeFolder("tree");
  ASSERT_EQ(symlink("../outside", "tree/to-folder"), 0);
  ASSERT_EQ(symlink("../outside/kept", "tree/to-file"), 0);
  ASSERT_EQ(symlink("nothing", "tree/to-nothing"), 0);
  EXPECT_EQ(GetFileAttributesW(L"tree/to-folder"), DWORD{FILE_ATTRIBUTE_DIRECTORY});
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(L"tree\\to*", &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  do {
    SCOPED_TRACE(data.cFileName);
    const std::wstring name = L"tree\\" + std::wstring(data.cFileName);
    const bool toFolder = name.ends_with(L"folder");
    EXPECT_EQ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0, toFolder);
    EXPECT_EQ(data.dwReserved0, name.ends_with(L"file") ? 0u : IO_REPARSE_TAG_SYMLINK);
    EXPECT_EQ(Find(name.c_str()), Success());
    EXPECT_TRUE(SetFileAttributesW(name.c_str(), FILE_ATTRIBUTE_READONLY));
    if (toFolder) {
      EXPECT_TRUE(RemoveDirectoryW(name.c_str()));
    } else {
      EXPECT_EQ(Delete(name), Success());
    }
  } while (FindNextFileW(find, &data));
  FindClose(find);
  EXPECT_EQ(GetFileAttributesW(L"outside/kept"), DWORD{FILE_ATTRIBUTE_ARCHIVE});
  EXPECT_TRUE(RemoveDirectoryW(L"tree"));
  ASSERT_EQ(symlink("outside", "link"), 0);
  EXPECT_TRUE(RemoveDirectoryW(L"link"));
  EXPECT_TRUE(Exists("outside/kept"));
}

TEST_F(LinuxNamesTest, ReadOnlyIsNoWriteBit) {
  Write("f");
  chmod("f", 0755);
  SetAttributes("f", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
  struct stat status;
  stat("f", &status);
  EXPECT_EQ(status.st_mode & 07777, 0555u);
  SetAttributes("f", FILE_ATTRIBUTE_ARCHIVE);
  stat("f", &status);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST_F(LinuxNamesTest, CopyOfAPseudoFile) {
  EXPECT_TRUE(CopyFileW(L"/proc/self/status", At("status").c_str(), TRUE));
  EXPECT_EQ(Read("status").substr(0, 5), "Name:");
}
