// A path that begins with a slash is this system's: both separators count in it, and a slash joins.
#include <gtest/gtest.h>

#include <string>

#include "qelibaselib/platform/win32.h"

TEST(SystemPathServicesTest, Combine) {
  const wchar_t* const rows[][3] = {
      {L"/var/log", L"f", L"/var/log/f"},
      {L"/var/log/", L"f", L"/var/log/f"},
      {L"/", L"f", L"/f"},
      {L"/var/log", L"../f", L"/var/f"},
      {L"/var/log", L"..\\f", L"/var/f"},
      {L"/a", L"../../..", L"/"},
      {L"/var/log", L"/etc/f", L"/etc/f"},
      {L"/var/log", L"\\f", L"\\f"},
      {L"/a/./b", L"*.*", L"/a/b/*.*"},
      {L"a\\b", L"\\f", L"\\f"},
      {L"\\\\s\\h\\a", L"\\f", L"\\\\s\\h\\f"},
      {L"/a", L"b.", L"/a/b."},
      {L"C:\\log", L"/f", L"/f"},
      {L"/a", L"C:\\f", L"C:\\f"},
  };
  for (const auto& row : rows) {
    wchar_t result[MAX_PATH];
    ASSERT_EQ(PathCombineW(result, row[0], row[1]), result);
    EXPECT_STREQ(result, row[2]) << row[0] << L" + " << row[1];
  }
}

TEST(SystemPathServicesTest, Parts) {
  const wchar_t* const specs[][2] = {
      {L"/opt/x/prog", L"/opt/x"}, {L"/opt", L"/"}, {L"/opt\\x", L"/opt"}, {L"/opt/x/", L"/opt/x"}};
  for (const auto& row : specs) {
    std::wstring path = row[0];
    EXPECT_TRUE(PathRemoveFileSpecW(path.data()));
    EXPECT_STREQ(path.c_str(), row[1]);
  }
  std::wstring root = L"/", folder = L"/a/";
  EXPECT_FALSE(PathRemoveFileSpecW(root.data()));
  PathRemoveBackslashW(root.data());
  EXPECT_STREQ(root.c_str(), L"/");
  PathRemoveBackslashW(folder.data());
  EXPECT_STREQ(folder.c_str(), L"/a");
  EXPECT_STREQ(PathFindFileNameW(L"/log/12:30.txt"), L"12:30.txt");
  EXPECT_FALSE(PathIsRootW(L"/a"));
  EXPECT_TRUE(PathIsRootW(L"/"));
}
