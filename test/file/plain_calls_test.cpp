#include "test/file/file_test.h"

namespace qel::test {
namespace {

class PlainCalls : public FileTest {};

TEST_F(PlainCalls, ReadingAndWritingKeepTheResultAndTheLastError) {
  const ScopedFile file(OpenPlain(Wide("x"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW));
  SetLastError(kUntouched);
  DWORD count = 0;
  EXPECT_TRUE(WriteFileX(HOST, file.Get(), "abcdef", 6, &count, nullptr));
  EXPECT_EQ(count, 6u);
  OVERLAPPED from{};
  from.Offset = 2;
  char text[8] = {};
  EXPECT_TRUE(ReadFileX(HOST, file.Get(), text, 8, &count, &from));
  EXPECT_EQ(std::string(text, count), "cdef");
  EXPECT_TRUE(ReadFileX(HOST, file.Get(), text, 8, &count, nullptr));
  EXPECT_EQ(count, 0u) << "the end of the file is no failure";
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(PlainCalls, AFailureIsOneLineWithTheCallsArguments) {
  const HANDLE bad = HANDLE(0x7ABCDEF0);
  DWORD count = 99;
  OVERLAPPED overlapped{};
  char narrow[MAX_PATH];
  wchar_t wide[MAX_PATH];
  const std::string missing = Text("no");
  ExpectFailures({
      {[&] { return ReadFileX(HOST, bad, narrow, 4, &count, nullptr); }, 6,
       "ReadFileX(0x7abcdef0, " + Address(narrow) + ", 0x4, " + Address(&count) + ", 0x00000000)"},
      {[&] { return WriteFileX(HOST, bad, narrow, 300, &count, &overlapped); }, 6,
       "WriteFileX(0x7abcdef0, " + Address(narrow) + ", 0x12c, " + Address(&count) + ", " + Address(&overlapped) + ")"},
      {[&] { return MoveFileX(HOST, Wide("no").c_str(), Wide("a/to").c_str()); }, 2,
       "MoveFileX(" + missing + ", " + Text("a/to") + ")"},
      {[&] { return GetTempFileNameX(HOST, Wide("no").c_str(), nullptr, 7, wide); }, 267,
       "GetTempFileNameX(" + missing + ", NULL, 7, " + Address(wide) + ")"},
      {[&] { return GetTempFileNameTX(HOST, missing.c_str(), "p", 0, narrow); }, 267,
       "GetTempFileNameTX(" + missing + ", p, 0, " + Address(narrow) + ")"},
      {[&] { return GetTempFileNameTX(HOST, nullptr, "p", 0, narrow); }, 267,
       "GetTempFileNameTX(NULL, p, 0, " + Address(narrow) + ")"},
      {[] { return SHCreateDirectoryExX(HOST, L"relative"); }, 161, "SHCreateDirectoryExX(relative)"},
      {[] { return SHCreateDirectoryExX(HOST, nullptr); }, 161, "SHCreateDirectoryExX(NULL)"},
  });
}

TEST_F(PlainCalls, OnlyAnOverlappedCallMayBePending) {
  auto read = FAIL_CALL(ReadFile, 1, ERROR_IO_PENDING, FALSE, 2);
  auto write = FAIL_CALL(WriteFile, 1, ERROR_IO_PENDING, FALSE, 2);
  char byte = 0;
  DWORD count;
  OVERLAPPED overlapped{};
  const std::string arguments = "(0x0, " + Address(&byte) + ", 0x1, " + Address(&count) + ", 0x00000000)";
  ExpectFailures(
      {{[&] { return ReadFileX(HOST, nullptr, &byte, 1, &count, &overlapped); }, 997, ""},
       {[&] { return WriteFileX(HOST, nullptr, &byte, 1, &count, &overlapped); }, 997, ""},
       {[&] { return ReadFileX(HOST, nullptr, &byte, 1, &count, nullptr); }, 997, "ReadFileX" + arguments},
       {[&] { return WriteFileX(HOST, nullptr, &byte, 1, &count, nullptr); }, 997, "WriteFileX" + arguments}});
}

TEST_F(PlainCalls, AShortWriteIsLoggedAndStillASuccess) {
  auto write = STAND_IN(WriteFile, [](int, HANDLE, LPCVOID, DWORD, DWORD* written, LPOVERLAPPED) {
    *written = 2;
    SetLastError(77);
    return TRUE;
  });
  DWORD count;
  OVERLAPPED overlapped{};
  const char* text = "abc";
  EXPECT_TRUE(WriteFileX(HOST, HANDLE(0x12), text, 3, &count, &overlapped));
  EXPECT_EQ(FileMessages(), Messages{}) << "the count of an overlapped write says nothing";
  EXPECT_TRUE(WriteFileX(HOST, HANDLE(0x12), text, 3, &count, nullptr));
  EXPECT_EQ(GetLastError(), 77u);
  EXPECT_EQ(FileMessages(), Messages{"Error, nNumberOfBytesToWrite(3) != *lpNumberOfBytesWritten(2), lastErr=77, "
                                     "WriteFileX(0x12, " +
                                     Address(text) + ", 0x3, " + Address(&count) + ", 0x00000000)"});
}

TEST_F(PlainCalls, TheSizeOfAFile) {
  Write("x", std::string(1234, 'x'));
  WIN32_FIND_DATAW data{};
  DWORD error = 5;
  SetLastError(kUntouched);
  EXPECT_EQ(GetFileSizeX((L"\"" + Wide("x") + L"\"").c_str(), &data, &error), 1234u);
  EXPECT_EQ(error, kUntouched) << "stored also on success";
  EXPECT_EQ(data.nFileSizeLow, 1234u);
  EXPECT_STREQ(data.cFileName, L"x");
  EXPECT_EQ(GetFileSizeX(Wide("no").c_str(), &data, &error), 0u);
  EXPECT_EQ(error, 2u);
  EXPECT_EQ(FileMessages(), Messages{});

  auto find = STAND_IN(FindFirstFileW, [](int, LPCWSTR name, LPWIN32_FIND_DATAW result) {
    const HANDLE handle = FindFirstFileW(name, result);
    result->nFileSizeHigh = 3;
    return handle;
  });
  EXPECT_EQ(GetFileSizeX(Wide("x").c_str(), &data, &error), (3ull << 32) + 1234);
}

TEST_F(PlainCalls, MovingReplacesTheTargetAndMakesItsFolder) {
  const std::wstring from = Wide("from"), to = Wide("a/to");
  for (const char* bytes : {"1", "2"}) {
    Write("from", bytes);
    EXPECT_TRUE(MoveFileX(HOST, from.c_str(), to.c_str()));
    EXPECT_EQ(Read("a/to"), bytes);
    EXPECT_FALSE(Exists("from"));
  }
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_FALSE(MoveFileX(HOST, from.c_str(), to.c_str()));
  EXPECT_FALSE(Exists("a/to")) << "the target goes first";
}

TEST_F(PlainCalls, AHeldTargetIsNotReplaced) {
  Write("from", "1");
  Write("to", "2");
  FileHolder holder(Text("to"));
  EXPECT_FALSE(MoveFileX(HOST, Wide("from").c_str(), Wide("to").c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_EQ(Read("from"), "1");
}

TEST_F(PlainCalls, TemporaryNames) {
  wchar_t wide[MAX_PATH];
  char narrow[MAX_PATH];
  EXPECT_NE(GetTempFileNameX(HOST, Wide().c_str(), L"pre", 0, wide), 0u);
  EXPECT_EQ(GetFileAttributesW(wide), FILE_ATTRIBUTE_ARCHIVE);
  EXPECT_EQ(GetTempFileNameTX(HOST, Text().c_str(), "pre", 5, narrow), 5u);
  EXPECT_EQ(std::filesystem::path(narrow).filename(), "pre5.tmp");
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(PlainCalls, FoldersThatAreThereCountAsMade) {
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, (L"\"" + Wide("a") + L"\"").c_str()));
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, Wide("a").c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_TRUE(std::filesystem::is_directory(Path("a")));
  EXPECT_EQ(FileMessages(), Messages{});
  auto create = ANSWER_CALL(SHCreateDirectoryExW, ERROR_FILE_EXISTS);
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, L"any"));
  EXPECT_EQ(GetLastError(), 80u);
}

TEST_F(PlainCalls, ARootIsNotAskedFor) {
  auto create = ANSWER_CALL(SHCreateDirectoryExW, ERROR_ACCESS_DENIED);
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, Path().root_path().make_preferred().wstring().c_str()));
  EXPECT_EQ(create.Calls(), 0);
  EXPECT_EQ(GetLastError(), kUntouched);
}

TEST_F(PlainCalls, BackslashesAreReplaced) {
  const struct {
    std::wstring path;
    const wchar_t* replacement;
    const wchar_t* result;
  } cases[] = {{L"a\\b\\c", L"/", L"a/b/c"},
               {L"\\\\s\\h\\", L"12", L"11s1h1"},
               {L"a\\b", L"\\", L"a\\b"},
               {L"none", nullptr, L"none"},
               {L"", L"/", L""}};
  for (auto [path, replacement, result] : cases) {
    ReplaceBackslashFromPath(path.data(), replacement);
    EXPECT_EQ(path, result);
  }
}

}  // namespace
}  // namespace qel::test
