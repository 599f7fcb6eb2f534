#include <ctime>

#include "test/platform/files/file_calls.h"
#include "test/support/open_handles.h"

using namespace qel::test;

namespace {

std::wstring Names(const wchar_t* pattern) {
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(pattern, &data);
  if (find == INVALID_HANDLE_VALUE) return L"error " + std::to_wstring(GetLastError());
  std::wstring names;
  do names += (names.empty() ? L"" : L" ") + std::wstring(data.cFileName);
  while (FindNextFileW(find, &data));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_FILES});
  EXPECT_EQ(Ask([&] { return FindNextFileW(find, &data); }), Failure(18));
  EXPECT_TRUE(FindClose(find));
  return names;
}

}  // namespace

class FindFileTest : public FileTest {
 protected:
  FindFileTest() {
    MakeFolder("d");
    for (const char* name : {"10", ".hidden", "9", "a-b", "a.htm", "a.txt", "a_b", "b.html", "Bdir.x", "C.TXT"})
      Write(std::string("d/") + name);
    Write("file");
    MakeFolder("empty");
    MakeFolder("utf16");
    if (!kLinux) return;
    for (const char* name : {"\uFF21", "\U00020000", "\U0001F600", "\uD7A3"}) Write(std::string("utf16/") + name);
  }
};

TEST_F(FindFileTest, OrderAndPatterns) {
  struct {
    const wchar_t *pattern, *names, *onWine;
  } const rows[] = {
      {L"d\\*.*", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT", nullptr},
      {L"d\\*", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT", nullptr},
      {L"d/a*", L"a-b a.htm a.txt a_b", nullptr},
      {L"d\\?.txt", kLinux ? L"a.txt" : L"a.txt C.TXT", nullptr},
      {L"d\\??????.htm", L"a.htm", L"error 2"},
      {L"d\\*.", L". .. 10 9 a-b a_b", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT"},
      {L"d\\*..", L". .. 10 9 a-b a_b", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT"},
      {L"d\\*. ", L". .. 10 9 a-b a_b", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT"},
      {L"d\\*  ", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT", nullptr},
      {L"d\\*.*.", L". .. .hidden 10 9 a-b a.htm a.txt a_b b.html Bdir.x C.TXT", nullptr},
      {L"d\\?. .", L". 9", nullptr},
      {L"d\\a*t. .", L"a.txt", nullptr},
      {L"d\\a?b", L"a-b a_b", nullptr},
      {L"d\\?", L". 9", nullptr},
      {L"d\\x*", L"error 2", nullptr},
      {L"empty\\*.*", L". ..", nullptr},
      {L"empty\\x*", L"error 2", nullptr},
      {L"utf16\\*", L". .. \uD7A3 \U0001F600 \U00020000 \uFF21", L". .."},
      {L"d\\9", L"9", nullptr},
      {L"d", L"d", nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern);
    EXPECT_EQ(Names(row.pattern), OnWine() && row.onWine ? row.onWine : row.names);
  }
}

TEST_F(FindFileTest, Refuses) {
  struct {
    const wchar_t* pattern;
    Outcome outcome;
  } const rows[] = {
      {L"file", Success()},        {L"missing", Failure(2)},  {L"empty\\", Failure(2)},
      {L"nodir\\*.*", Failure(3)}, {L"nodir\\x", Failure(3)}, {L"", Failure(3)},
      {nullptr, Failure(3)},       {L"Q:\\*.*", Failure(3)},  {L"file\\*.*", ByTarget(Failure(267), Failure(123))},
      {L"?:\\???", Failure(123)},  {L"d*\\a", Failure(123)},  {L"a|b", ByTarget(Failure(123), Failure(2))},
      {L"\"b.txt\"", Failure(2)},  {L"a<b", Failure(2)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.pattern ? row.pattern : L"NULL");
    EXPECT_EQ(Find(row.pattern), row.outcome);
  }
  if (!OnWine()) {  // which takes any handle for a search
    WIN32_FIND_DATAW data;
    FileHandle file(At("file"));
    EXPECT_EQ(Ask([&] { return FindNextFileW(file.get(), &data); }), Failure(6));
    EXPECT_EQ(Ask([&] { return FindClose(file.get()); }), Failure(6));
  }
}

TEST_F(FindFileTest, FindData) {
  FileHandle file(At("large"), kRW, kShareAll, CREATE_NEW, FILE_ATTRIBUTE_HIDDEN);
  LARGE_INTEGER end;
  end.QuadPart = 0x100000003;
  ASSERT_TRUE(SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN));
  DWORD bytes = 0;
  ASSERT_TRUE(WriteFile(file.get(), "x", 1, &bytes, nullptr));
  for (const wchar_t* pattern : {L"large", L"lar*"}) {
    WIN32_FIND_DATAW data = {};
    ASSERT_TRUE(FindClose(FindFirstFileW(pattern, &data)));
    EXPECT_EQ(data.dwFileAttributes, 0x22u);
    EXPECT_EQ(data.nFileSizeHigh, 1u);
    EXPECT_EQ(data.nFileSizeLow, 4u);
    EXPECT_STREQ(data.cFileName, L"large");
    const ULONGLONG written =
        static_cast<ULONGLONG>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
    const auto now = static_cast<ULONGLONG>(std::time(nullptr)) + 11'644'473'600;          // seconds from 1601
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(written / 10'000'000), 60);  // time() may lag by a tick
  }
  WIN32_FIND_DATAW data = {};
  ASSERT_TRUE(FindClose(FindFirstFileW(L"d", &data)));
  EXPECT_EQ(data.dwFileAttributes, 0x10u);
  EXPECT_EQ(data.nFileSizeLow, 0u);
}

TEST_F(FindFileTest, SearchIsCounted) {
  for (const wchar_t* pattern : {L"file", L"d\\*"}) {
    WIN32_FIND_DATAW data;
    const unsigned long before = OpenHandleCount();
    HANDLE find = FindFirstFileW(pattern, &data);
    if (kLinux) {
      EXPECT_EQ(OpenHandleCount(), before + 1);
    }
    FindClose(find);
    EXPECT_EQ(OpenHandleCount(), before);
  }
}
