#include "test/file/file_test.h"

namespace qel::test {
namespace {

class PlainCalls : public FileTest {};

TEST_F(PlainCalls, ReadingAndWritingKeepTheResultAndTheLastError) {
  const ScopedFile file(OpenPlain(folder_.Wide("x"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW));
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

TEST_F(PlainCalls, FailedTransfersAreLogged) {
  const HANDLE bad = HANDLE(0x7ABCDEF0);
  char buffer[4];
  DWORD count = 99;
  OVERLAPPED overlapped{};
  EXPECT_FALSE(ReadFileX(HOST, bad, buffer, 4, &count, nullptr));
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_FALSE(WriteFileX(HOST, bad, buffer, 300, &count, &overlapped));
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(FileMessages(),
            (Messages{"lastErr=6, ReadFileX(0x7abcdef0, 0x" + Hex(buffer) + ", 0x4, 0x" + Hex(&count) + ", 0x00000000)",
                      "lastErr=6, WriteFileX(0x7abcdef0, 0x" + Hex(buffer) + ", 0x12c, 0x" + Hex(&count) + ", 0x" +
                          Hex(&overlapped) + ")"}));
}

TEST_F(PlainCalls, OnlyAnOverlappedCallMayBePending) {
  auto read = FAIL_CALL(ReadFile, 1, ERROR_IO_PENDING, FALSE, 2);
  auto write = FAIL_CALL(WriteFile, 1, ERROR_IO_PENDING, FALSE, 2);
  char byte = 0;
  DWORD count;
  OVERLAPPED overlapped{};
  EXPECT_FALSE(ReadFileX(HOST, nullptr, &byte, 1, &count, &overlapped));
  EXPECT_EQ(GetLastError(), 997u);
  EXPECT_FALSE(WriteFileX(HOST, nullptr, &byte, 1, &count, &overlapped));
  EXPECT_EQ(GetLastError(), 997u);
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_FALSE(ReadFileX(HOST, nullptr, &byte, 1, &count, nullptr));
  EXPECT_FALSE(WriteFileX(HOST, nullptr, &byte, 1, &count, nullptr));
  EXPECT_EQ(GetLastError(), 997u);
  EXPECT_EQ(FileMessages().size(), 2u);
}

TEST_F(PlainCalls, AShortWriteIsLoggedAndStillASuccess) {
  auto write = STAND_IN(WriteFile, [](int, HANDLE, LPCVOID, DWORD, DWORD* written, LPOVERLAPPED) {
    *written = 2;
    SetLastError(77);
    return TRUE;
  });
  DWORD count;
  OVERLAPPED overlapped{};
  EXPECT_TRUE(WriteFileX(HOST, HANDLE(0x12), "abc", 3, &count, &overlapped));
  EXPECT_EQ(FileMessages(), Messages{}) << "the count of an overlapped write says nothing";
  const char* text = "abc";
  EXPECT_TRUE(WriteFileX(HOST, HANDLE(0x12), text, 3, &count, nullptr));
  EXPECT_EQ(GetLastError(), 77u);
  EXPECT_EQ(FileMessages(), Messages{"Error, nNumberOfBytesToWrite(3) != *lpNumberOfBytesWritten(2), lastErr=77, "
                                     "WriteFileX(0x12, 0x" +
                                     Hex(text) + ", 0x3, 0x" + Hex(&count) + ", 0x00000000)"});
}

TEST_F(PlainCalls, TheSizeOfAFile) {
  WriteWholeFile(folder_.Path() / "x", std::string(1234, 'x'));
  WIN32_FIND_DATAW data{};
  DWORD error = 5;
  SetLastError(kUntouched);
  EXPECT_EQ(GetFileSizeX((L"\"" + folder_.Wide("x") + L"\"").c_str(), &data, &error), 1234u);
  EXPECT_EQ(error, kUntouched) << "stored also on success";
  EXPECT_EQ(data.nFileSizeLow, 1234u);
  EXPECT_STREQ(data.cFileName, L"x");
  EXPECT_EQ(GetFileSizeX(folder_.Wide("no").c_str(), &data, &error), 0u);
  EXPECT_EQ(error, 2u);
  EXPECT_EQ(FileMessages(), Messages{});

  auto find = STAND_IN(FindFirstFileW, [](int, LPCWSTR name, LPWIN32_FIND_DATAW result) {
    const HANDLE handle = FindFirstFileW(name, result);
    result->nFileSizeHigh = 3;
    return handle;
  });
  EXPECT_EQ(GetFileSizeX(folder_.Wide("x").c_str(), &data, &error), (3ull << 32) + 1234);
}

TEST_F(PlainCalls, MovingReplacesTheTargetAndMakesItsFolder) {
  WriteWholeFile(folder_.Path() / "from", "1");
  EXPECT_TRUE(MoveFileX(HOST, folder_.Wide("from").c_str(), folder_.Wide("a/to").c_str()));
  WriteWholeFile(folder_.Path() / "from", "2");
  EXPECT_TRUE(MoveFileX(HOST, folder_.Wide("from").c_str(), folder_.Wide("a/to").c_str()));
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "a/to"), "2");
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "from"));
  EXPECT_EQ(FileMessages(), Messages{});

  EXPECT_FALSE(MoveFileX(HOST, folder_.Wide("from").c_str(), folder_.Wide("a/to").c_str()));
  EXPECT_EQ(GetLastError(), 2u);
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "a/to")) << "the target goes first";
  EXPECT_EQ(FileMessages(),
            Messages{"lastErr=2, MoveFileX(" + folder_.Narrow("from") + ", " + folder_.Narrow("a/to") + ")"});
}

TEST_F(PlainCalls, AHeldTargetIsNotReplaced) {
  WriteWholeFile(folder_.Path() / "from", "1");
  WriteWholeFile(folder_.Path() / "to", "2");
  FileHolder holder(folder_.Narrow("to"));
  EXPECT_FALSE(MoveFileX(HOST, folder_.Wide("from").c_str(), folder_.Wide("to").c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "from"), "1");
}

TEST_F(PlainCalls, TemporaryNames) {
  wchar_t wide[MAX_PATH];
  char narrow[MAX_PATH];
  const UINT number = GetTempFileNameX(HOST, folder_.Wide().c_str(), L"pre", 0, wide);
  EXPECT_NE(number, 0u);
  EXPECT_EQ(GetFileAttributesW(wide), FILE_ATTRIBUTE_ARCHIVE);
  EXPECT_EQ(GetTempFileNameTX(HOST, folder_.Narrow().c_str(), "pre", 5, narrow), 5u);
  EXPECT_EQ(std::filesystem::path(narrow).filename(), "pre5.tmp");
  EXPECT_EQ(FileMessages(), Messages{});

  const std::string missing = folder_.Narrow("no");
  EXPECT_EQ(GetTempFileNameX(HOST, folder_.Wide("no").c_str(), nullptr, 7, wide), 0u);
  EXPECT_EQ(GetLastError(), 267u);
  EXPECT_EQ(GetTempFileNameTX(HOST, missing.c_str(), "p", 0, narrow), 0u);
  EXPECT_EQ(GetLastError(), 267u);
  EXPECT_EQ(GetTempFileNameTX(HOST, nullptr, "p", 0, narrow), 0u);
  EXPECT_EQ(GetLastError(), 267u);
  EXPECT_EQ(FileMessages(), (Messages{"lastErr=267, GetTempFileNameX(" + missing + ", NULL, 7, 0x" + Hex(wide) + ")",
                                      "lastErr=267, GetTempFileNameTX(" + missing + ", p, 0, 0x" + Hex(narrow) + ")",
                                      "lastErr=267, GetTempFileNameTX(NULL, p, 0, 0x" + Hex(narrow) + ")"}));
}

TEST_F(PlainCalls, FoldersThatAreThereCountAsMade) {
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, (L"\"" + folder_.Wide("a") + L"\"").c_str()));
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, folder_.Wide("a").c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_TRUE(std::filesystem::is_directory(folder_.Path() / "a"));
  EXPECT_EQ(FileMessages(), Messages{});

  EXPECT_FALSE(SHCreateDirectoryExX(HOST, L"relative"));
  EXPECT_EQ(GetLastError(), 161u);
  EXPECT_FALSE(SHCreateDirectoryExX(HOST, nullptr));
  EXPECT_EQ(FileMessages(),
            (Messages{"lastErr=161, SHCreateDirectoryExX(relative)", "lastErr=161, SHCreateDirectoryExX(NULL)"}));

  auto create = STAND_IN(SHCreateDirectoryExW, [](int, auto...) { return ERROR_FILE_EXISTS; });
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, L"any"));
  EXPECT_EQ(GetLastError(), 80u);
}

TEST_F(PlainCalls, ARootIsNotAskedFor) {
  auto create = STAND_IN(SHCreateDirectoryExW, [](int, auto...) { return ERROR_ACCESS_DENIED; });
  const std::wstring root = folder_.Path().root_path().make_preferred().wstring();
  EXPECT_TRUE(SHCreateDirectoryExX(HOST, root.c_str()));
  EXPECT_EQ(create.Calls(), 0);
  EXPECT_EQ(GetLastError(), kUntouched);
}

TEST_F(PlainCalls, BackslashesAreReplaced) {
  const auto replaced = [](std::wstring path, const wchar_t* replacement) {
    ReplaceBackslashFromPath(path.data(), replacement);
    return path;
  };
  EXPECT_EQ(replaced(L"a\\b\\c", L"/"), L"a/b/c");
  EXPECT_EQ(replaced(L"\\\\s\\h\\", L"12"), L"11s1h1");
  EXPECT_EQ(replaced(L"a\\b", L"\\"), L"a\\b");
  EXPECT_EQ(replaced(L"none", nullptr), L"none");
  EXPECT_EQ(replaced(L"", L"/"), L"");
}

}  // namespace
}  // namespace qel::test
