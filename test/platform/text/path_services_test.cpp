// The shell's path services on Windows paths, which mean the same on both targets.
#include <gtest/gtest.h>

#include <string>

#include "qelibaselib/platform/win32.h"
#include "test/platform/target.h"
#include "test/support/scratch_folder.h"

using namespace qel::test;

namespace {

std::wstring Combine(const wchar_t* folder, const wchar_t* more) {
  wchar_t result[MAX_PATH + 1] = L"untouched";
  return PathCombineW(result, folder, more) == result ? result : *result ? L"left" : L"none";
}

struct Change {
  BOOL changed;
  std::wstring text;
  bool operator==(const Change&) const = default;
};

Change RemoveFileSpec(std::wstring path) {
  const BOOL changed = PathRemoveFileSpecW(path.data());
  return {changed, path.c_str()};
}

}  // namespace

TEST(PathServicesTest, Combine) {
  const struct {
    const wchar_t *folder, *more, *result;
  } rows[] = {
      {L"C:\\log", L"f", L"C:\\log\\f"},
      {L"C:\\log\\", L"f", L"C:\\log\\f"},
      {L"C:\\log", L"\\f", L"C:\\f"},
      {L"C:\\log", L"D:\\x", L"D:\\x"},
      {L"C:\\log", L"D:f", L"D:f"},
      {L"C:\\log", L"\\\\s\\h\\f", L"\\\\s\\h\\f"},
      {L"C:\\log\\a", L"..\\f", L"C:\\log\\f"},
      {L"C:\\log", L".\\f", L"C:\\log\\f"},
      {L"C:\\a", L"..\\..\\..", L"C:\\"},
      {L"C:\\log", L"", L"C:\\log"},
      {L"C:\\log", nullptr, L"C:\\log"},
      {nullptr, L"f", L"f"},
      {nullptr, nullptr, L"none"},
      {L"", L"", L"\\"},
      {nullptr, L"", L"\\"},
      {L"C:", L"f", L"C:\\f"},
      {L"rel", L"..\\f", L"\\f"},
      {L"\\", L"f", L"\\f"},
      {L"?:\\???", L"f.txt", L"?:\\???\\f.txt"},
      {L"C:\\a", L"*.*", L"C:\\a\\*.*"},
      {L"\"C:\\a\"", L"f", L"\"C:\\a\"\\f"},
      {L"C:\\a/b", L"c/d", L"C:\\a/b\\c/d"},
      {L"C:\\a..b\\.c", L"d.", L"C:\\a..b\\.c\\d."},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Combine(row.folder, row.more), row.result)
        << (row.folder ? row.folder : L"NULL") << L" + " << (row.more ? row.more : L"NULL");
  EXPECT_EQ(Combine(L"C:\\a\\b", L"."), OnWine() ? L"C:\\a\\b\\." : L"C:\\a\\b");
  EXPECT_EQ(PathCombineW(nullptr, L"a", L"b"), nullptr);
}

TEST(PathServicesTest, CombineHasRoomFor259Characters) {
  const std::wstring folder = L"C:\\" + std::wstring(150, L'a'), fits(259 - folder.size() - 1, L'b');
  EXPECT_EQ(Combine(folder.c_str(), fits.c_str()), folder + L"\\" + fits);
  EXPECT_EQ(Combine(folder.c_str(), (fits + L"b").c_str()), L"none");
  wchar_t same[MAX_PATH] = L"C:\\log";
  EXPECT_EQ(PathCombineW(same, same, L"f"), same);
  EXPECT_STREQ(same, L"C:\\log\\f");
}

TEST(PathServicesTest, RemoveFileSpec) {
  const struct {
    const wchar_t* path;
    Change result;
  } rows[] = {
      {L"C:\\a\\b.txt", {TRUE, L"C:\\a"}},
      {L"C:\\a\\", {TRUE, L"C:\\a"}},
      {L"C:\\a", {TRUE, L"C:\\"}},
      {L"C:\\", {FALSE, L"C:\\"}},
      {L"C:", {FALSE, L"C:"}},
      {L"C:a", {TRUE, L"C:"}},
      {L"a\\b", {TRUE, L"a"}},
      {L"a", {TRUE, L""}},
      {L"a/b", {TRUE, L""}},
      {L"\\a", {TRUE, L"\\"}},
      {L"\\", {FALSE, L"\\"}},
      {L"\\\\s\\h\\d", {TRUE, L"\\\\s\\h"}},
      {L"\\\\s\\h", {TRUE, L"\\\\s"}},
      {L"\\\\s", {TRUE, L"\\\\"}},
      {L"\\\\", {FALSE, L"\\\\"}},
      {L"", {FALSE, L""}},
      {L"C:\\a\\b\\\\c", {TRUE, L"C:\\a\\b\\"}},
  };
  for (const auto& row : rows) EXPECT_EQ(RemoveFileSpec(row.path), row.result) << row.path;
  EXPECT_FALSE(PathRemoveFileSpecW(nullptr));
}

TEST(PathServicesTest, RemoveBackslash) {
  const struct {
    const wchar_t *path, *result;
    size_t returned;
  } rows[] = {
      {L"C:\\a\\", L"C:\\a", 4}, {L"a", L"a", 0},   {L"C:\\", L"C:\\", 2}, {L"\\", L"\\", 0},
      {L"a\\\\", L"a\\", 2},     {L"a/", L"a/", 1}, {L"", L"", 0},
  };
  for (const auto& row : rows) {
    std::wstring path = row.path;
    EXPECT_EQ(PathRemoveBackslashW(path.data()), path.data() + row.returned) << row.path;
    EXPECT_STREQ(path.c_str(), row.result);
  }
}

TEST(PathServicesTest, UnquoteSpaces) {
  const wchar_t* const rows[][2] = {
      {L"\"C:\\a b\"", L"C:\\a b"},
      {L"\"\"", L""},
      {L"\"", L""},
      {L"\"\"a\"\"", L"\"a\""},
      {L"\"a", L"\"a"},
      {L"a\"", L"a\""},
      {L" \"a\"", L" \"a\""},
      {L"\"a\" ", L"\"a\" "},
      {L"a\"b\"c", L"a\"b\"c"},
      {L"", L""},
  };
  for (const auto& row : rows) {
    std::wstring path = row[0];
    PathUnquoteSpacesW(path.data());
    EXPECT_STREQ(path.c_str(), row[1]) << row[0];
  }
}

TEST(PathServicesTest, FindFileName) {
  const wchar_t* const rows[][2] = {
      {L"C:\\a\\b.txt", L"b.txt"},
      {L"C:\\a\\", L"a\\"},
      {L"C:\\", L"C:\\"},
      {L"C:", L"C:"},
      {L"C:a", L"a"},
      {L"a/b", L"b"},
      {L"a:b", L"b"},
      {L"", L""},
      {L"a", L"a"},
  };
  for (const auto& row : rows) EXPECT_STREQ(PathFindFileNameW(row[0]), row[1]) << row[0];
  EXPECT_EQ(PathFindFileNameW(nullptr), nullptr);
  EXPECT_STREQ(PathFindFileNameA("/src/x.cpp"), "x.cpp");
  EXPECT_STREQ(PathFindFileNameA("C:\\src\\x.cpp"), "x.cpp");
}

TEST(PathServicesTest, IsRoot) {
  for (const wchar_t* root : {L"C:\\", L"?:\\", L"\\", L"\\\\server\\share", L"\\\\server", L"\\\\"})
    EXPECT_TRUE(PathIsRootW(root)) << root;
  for (const wchar_t* path :
       {L"C:", L"C:/", L"\\\\server\\share\\", L"\\\\s\\h\\d", L"C:\\\\", L"CC:\\", L"\\a", L"\"C:\\\"", L""})
    EXPECT_FALSE(PathIsRootW(path)) << path;
  EXPECT_FALSE(PathIsRootW(nullptr));
  EXPECT_EQ(PathIsRootW(L"/"), kLinux ? TRUE : FALSE);
}

TEST(PathServicesTest, CreateDirectoryEx) {
  const ScratchFolder scratch;
  const auto make = [&](const std::wstring& path) { return SHCreateDirectoryExW(nullptr, path.c_str(), nullptr); };
  const auto at = [&](const wchar_t* name) { return scratch.Wide() + L"\\" + name; };
  WriteWholeFile(scratch.Path() / "file", "");
  for (const wchar_t* name : {L"new", L"one\\two\\three", L"trailing\\", L"double\\\\inner", L"a\\..\\b"})
    EXPECT_EQ(make(at(name)), 0) << name;
  EXPECT_FALSE(std::filesystem::exists(scratch.Path() / "a"));
  for (const wchar_t* name : {L"new", L"new\\", L"file"}) EXPECT_EQ(make(at(name)), 183) << name;
  EXPECT_EQ(make(at(L"file\\x")), 3);
  for (const wchar_t* relative : {L"rel", L"rel\\b", L".", L"", L"\"C:\\x\""})
    EXPECT_EQ(make(relative), 161) << relative;
  EXPECT_EQ(make(L"?:\\???"), 123);
  EXPECT_EQ(make(at(L"sub?\\x")), 123);
  EXPECT_EQ(make(L"Q:\\x"), ByTarget(3, 2));
  EXPECT_EQ(make(L"Q:\\x\\y"), 3);
  const std::wstring longest = at(std::wstring(247 - scratch.Wide().size() - 1, L'n').c_str());
  EXPECT_EQ(make(longest + L"n"), ByTarget(206, 0));
  EXPECT_EQ(make(longest), 0);
}
