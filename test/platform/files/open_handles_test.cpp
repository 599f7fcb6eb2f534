// What searches and failed calls hold open, and what is no search.
#include "test/support/open_handles.h"

#include "test/platform/files/file_calls.h"

using namespace qel::test;

class OpenHandlesTest : public FileTest {
 protected:
  OpenHandlesTest() {
    Write("file");
    MakeFolder("dir");
  }
};

TEST_F(OpenHandlesTest, NothingIsLeftOpen) {
  const unsigned long before = OpenHandleCount();
  for (const wchar_t* name : {L"dir", L"file", L"?"}) Create(name, kRW, 0, OPEN_ALWAYS);
  for (const wchar_t* pattern : {L"*", L"file", L"nothing*", L"file\\*"}) Find(pattern);
  EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(OpenHandlesTest, ASearchIsCounted) {
  for (const wchar_t* pattern : {L"file", L"dir\\*"}) {
    WIN32_FIND_DATAW data;
    const unsigned long before = OpenHandleCount();
    const HANDLE find = FindFirstFileW(pattern, &data);
    EXPECT_EQ(OpenHandleCount(), before + 1);
    FindClose(find);
    EXPECT_EQ(OpenHandleCount(), before);
  }
}

TEST_F(OpenHandlesTest, AFileIsNoSearch) {
  WIN32_FIND_DATAW data;
  const FileHandle file(At("file"));
  EXPECT_EQ(Ask([&] { return FindNextFileW(file, &data); }), Failure(6));
  EXPECT_EQ(Ask([&] { return FindClose(file); }), Failure(6));
}
