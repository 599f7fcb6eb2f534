// What only this system has: names that are no text, links, one root without drives.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <vector>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

namespace {
int g_errorOfKernelCopies = 0;
}
// Stands before the C library's in every module.
extern "C" __attribute__((visibility("default"))) ssize_t copy_file_range(int from, off64_t* fromAt, int to,
                                                                          off64_t* toAt, size_t length,
                                                                          unsigned flags) {
  if (g_errorOfKernelCopies == 0) return syscall(SYS_copy_file_range, from, fromAt, to, toAt, length, flags);
  errno = g_errorOfKernelCopies;
  return -1;
}

class LinuxNamesTest : public FileTest {
 protected:
  static std::vector<std::wstring> FoundNames(const wchar_t* pattern) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW(pattern, &data);
    if (find == INVALID_HANDLE_VALUE) return names;
    do names.push_back(data.cFileName);
    while (FindNextFileW(find, &data));
    EXPECT_TRUE(FindClose(find));
    return names;
  }
};

// Each name is there, is listed in a form that no Win32 name of another meaning has, and is reached by that form alone.
TEST_F(LinuxNamesTest, EveryNameHasOneFormThatLeadsBackToIt) {
  const struct {
    const char* name;
    std::wstring shown;
  } rows[] = {
      {"gr\xC3\xBC\xC3\x9F", L"gr\xFC\xDF"},
      {"bad\xFF\xC3", L"bad\xDCFF\xDCC3"},
      {"..\\..\\up", L"..\xF05C..\xF05Cup"},
      {"\\tmp\\x", L"\xF05Ctmp\xF05Cx"},
      {"*?\"<>|", L"\xF02A\xF03F\xF022\xF03C\xF03E\xF07C"},
      {"\x01\t\x1F", L"\xF001\xF009\xF01F"},
      {"4:3",
       L"4\xF03A"
       L"3"},
      {"C:", L"C\xF03A"},
      {"\xC3\xBC:", L"\xFC\xF03A"},
      {"12:30", L"12:30"},
      {":a", L":a"},
      {"\xEF\x81\x9C", L"\xDCEF\xDC81\xDC9C"},
      {"a\xEF\x80\xBAz", L"a\xDCEF\xDC80\xDCBAz"},
      {"\xEF\x80\x80\xEF\x80\xAF\xEF\x81\x81", L"\xF000\xF02F\xF041"},  // no stand-ins, as no name holds these
      {"a", L"a"},
      {"a.", L"a."},
      {"a ", L"a "},
      {"a. .", L"a. ."},
      {"...", L"..."},
      {" ", L" "},
  };
  MakeFolder("d");
  std::set<std::wstring> expected = {L".", L".."};
  for (const auto& row : rows) {
    Write(std::string("d/") + row.name, row.name);
    expected.insert(row.shown);
  }
  const auto found = FoundNames(L"d\\*");
  EXPECT_EQ(std::set(found.begin(), found.end()), expected);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.shown);
    const std::wstring path = L"d\\" + row.shown;
    WIN32_FIND_DATAW data;
    ASSERT_TRUE(FindClose(FindFirstFileW(path.c_str(), &data)));
    EXPECT_EQ(data.cFileName, row.shown);
    EXPECT_TRUE(CopyFileW(path.c_str(), L"copy", FALSE));
    EXPECT_EQ(Read("copy"), row.name);
    EXPECT_EQ(Delete(path), Success());
  }
  EXPECT_TRUE(std::filesystem::is_empty("d"));
  EXPECT_EQ(Create(L"x\xD800", kW, 0, CREATE_NEW), Failure(123));
}

TEST_F(LinuxNamesTest, PatternsSeeNamesAsTheyAreShown) {
  for (const char* name : {"a:b", "a*b", "ab.", "ab"}) Write(name);
  const std::wstring colon =
                         L"a\xF03A"
                         L"b",
                     star =
                         L"a\xF02A"
                         L"b";
  using Names = std::vector<std::wstring>;
  const std::pair<const wchar_t*, Names> rows[] = {{L".\\a:*", {colon}},
                                                   {L"a\xF03A*", {colon}},
                                                   {L"?\xF02A?", {star}},
                                                   {L"ab.", {L"ab."}},
                                                   {L"ab*", {L"ab", L"ab."}}};
  for (const auto& [pattern, names] : rows) EXPECT_EQ(FoundNames(pattern), names) << pattern;
}

TEST_F(LinuxNamesTest, AreListedInTheOrderOfTheirUtf16) {
  for (const char* name : {"\uFF21", "\U00020000", "\U0001F600", "\uD7A3"}) Write(name);
  const std::vector<std::wstring> expected = {L".", L"..", L"\uD7A3", L"\U0001F600", L"\U00020000", L"\uFF21"};
  EXPECT_EQ(FoundNames(L"*"), expected);
}

TEST_F(LinuxNamesTest, SpecialFilesAreDevicesWithoutASize) {
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  ASSERT_EQ(symlink("/dev/zero", "zero"), 0);
  ASSERT_EQ(symlink("nothing that is there", "nowhere"), 0);
  for (const wchar_t* name : {L"fifo", L"fif*", L"zero", L"zer*", L"nowhere", L"nowh*"}) {
    SCOPED_TRACE(name);
    WIN32_FIND_DATAW data;
    ASSERT_TRUE(FindClose(FindFirstFileW(name, &data)));
    EXPECT_EQ(data.dwFileAttributes,
              name[0] == L'n' ? FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_REPARSE_POINT : DWORD{FILE_ATTRIBUTE_DEVICE});
    EXPECT_EQ(data.nFileSizeLow | data.nFileSizeHigh, 0u);
  }
}

TEST_F(LinuxNamesTest, FullPaths) {
  MakeFolder("in");
  MakeFolder("in/C:\\");
  const std::wstring here = scratch.Wide();
  const struct {
    const wchar_t* name;
    std::wstring full;
  } rows[] = {
      {L"a", here + L"/in/C\xF03A\xF05C/a"},
      {L"..\\..\\x", here + L"/x"},
      {L".", here + L"/in/C\xF03A\xF05C"},
      {L"..\\..\\..\\..\\..\\..\\..\\..\\..", L"/"},
      {L"\\a/.\\b/..\\c\\\\", L"/a/c/"},
      {L"\\\\?\\/a", L"/a"},
      {L"/", L"/"},
  };
  std::filesystem::current_path("in/C:\\");
  for (const auto& row : rows) {
    wchar_t full[MAX_PATH];
    LPWSTR last;
    EXPECT_EQ(GetFullPathNameW(row.name, MAX_PATH, full, &last), row.full.size());
    EXPECT_EQ(full, row.full);
    EXPECT_EQ(last ? last : L"", row.full.substr(row.full.rfind(L'/') + 1));
    EXPECT_EQ(GetFullPathNameW(row.name, static_cast<DWORD>(row.full.size()), full, nullptr), row.full.size() + 1);
  }
  EXPECT_EQ(Ask([&] { return GetFullPathNameW(L"a*", 0, nullptr, nullptr); }), Failure(123));
  std::filesystem::remove(std::filesystem::current_path());
  EXPECT_EQ(Ask([&] { return GetFullPathNameW(L"a", 0, nullptr, nullptr); }), Failure(2));
}

TEST_F(LinuxNamesTest, AFolderAfterATemplate) {
  MakeFolder("model");
  SetAttributes("model", FILE_ATTRIBUTE_HIDDEN);
  Write("file");
  const auto make = [](const wchar_t* model, const wchar_t* name) {
    return Ask([&] { return CreateDirectoryExW(model, name, nullptr); });
  };
  for (const mode_t mode : {0700u, 0755u, 01750u, 0500u}) {
    chmod("model", mode | S_ISUID);
    EXPECT_EQ(make(L"model", L"new"), Success());
    struct stat status;
    stat("new", &status);
    EXPECT_EQ(status.st_mode & 01777, mode | 0700);
    EXPECT_TRUE(GetFileAttributesW(L"new") & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_TRUE(RemoveDirectoryW(L"new"));
  }
  EXPECT_EQ(make(L"missing", L"new"), Failure(2));
  EXPECT_EQ(make(L"file", L"new"), Failure(267));
  EXPECT_EQ(make(L"model", L"model"), Failure(183));
  EXPECT_EQ(make(L"model", L"no\\new"), Failure(3));
  EXPECT_EQ(make(L"model", L"a*"), Failure(123));
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
  for (const auto& [attributes, mode] : {std::pair{0x21ul, 0555u}, {0x20ul, 0755u}}) {
    SetAttributes("f", attributes);
    struct stat status;
    stat("f", &status);
    EXPECT_EQ(status.st_mode & 07777, mode);
  }
}

TEST_F(LinuxNamesTest, CopyWhereTheKernelDoesNotCopy) {
  Write("from", "contents");
  for (const int error : {EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EPERM}) {
    g_errorOfKernelCopies = error;
    EXPECT_TRUE(CopyFileW(L"from", L"to", FALSE)) << error;
    EXPECT_EQ(Read("to"), "contents") << error;
    DeleteFileW(L"to");
  }
  g_errorOfKernelCopies = EIO;
  EXPECT_EQ(Ask([&] { return CopyFileW(L"from", L"to", FALSE); }), Failure(ERROR_IO_DEVICE));
  g_errorOfKernelCopies = 0;
}
