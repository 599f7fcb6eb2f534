#include "test/file/file_test.h"

namespace qel::test {
namespace {

class RetryingCalls : public FileTest {
 protected:
  HANDLE Open(const std::wstring& path, DWORD access, DWORD disposition, DWORD timeoutMs, DWORD intervalMs) {
    return CreateFileX(HOST, path.c_str(), access, FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       nullptr, timeoutMs, intervalMs);
  }
  // The line of Open.
  static std::string OpenLine(int retryCount, int error, const char* status, const std::string& path, DWORD access,
                              DWORD disposition, const std::string& times) {
    return "retryCount=" + std::to_string(retryCount) + ", lastErr=" + std::to_string(error) + ", " + status +
           ", CreateFileX(" + path + ", 0x" + LowerHex(access) + ", 0x1, 0x00000000, 0x" + LowerHex(disposition) +
           ", 0x80, 0x0, " + times + ")";
  }
};

TEST_F(RetryingCalls, OpeningForWritingMakesTheFoldersAndReadsToo) {
  const std::wstring path = folder_.Wide("a/b/new.bin");
  ScopedFile file(Open(path, GENERIC_WRITE, CREATE_ALWAYS, 0, 0));
  ASSERT_TRUE(file);
  EXPECT_EQ(GetLastError(), 0u);
  DWORD count = 0;
  char byte = 'x';
  EXPECT_TRUE(WriteFile(file.Get(), &byte, 1, &count, nullptr));
  EXPECT_TRUE(ReadFile(file.Get(), &byte, 1, &count, nullptr));
  file.Close();

  file = ScopedFile(Open(L"\"" + path + L"\"", GENERIC_WRITE, CREATE_ALWAYS, 0, 0));
  EXPECT_TRUE(file) << "quotes belong to the path";
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(RetryingCalls, OnlyAFileThatMayBeNewGetsItsFolders) {
  EXPECT_EQ(Open(folder_.Wide("a/x"), GENERIC_WRITE, OPEN_EXISTING, 0, 0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 3u);
  EXPECT_EQ(Open(folder_.Wide("a/x"), GENERIC_READ, CREATE_ALWAYS, 0, 0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 3u);
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "a"));
}

TEST_F(RetryingCalls, AHeldFileIsRetriedUntilTheBudgetIsUsedUp) {
  WriteWholeFile(folder_.Path() / "held", "x");
  FileHolder holder(folder_.Narrow("held"));
  FakeClock clock;
  EXPECT_EQ(Open(folder_.Wide("held"), GENERIC_READ, OPEN_EXISTING, 3000, 1000), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 32u);
  EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{1000, 1000, 1000}));
  const auto line = [&](int retryCount, const char* status) {
    return OpenLine(retryCount, 32, status, folder_.Narrow("held"), GENERIC_READ, OPEN_EXISTING, "3000, 1000");
  };
  const std::vector<LogLine> lines = TakeLines(channel::kFileOperation);
  ASSERT_EQ(lines.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(lines[i].message, line(i, i < 3 ? "Retry" : "Complete"));
    EXPECT_EQ(lines[i].sourceFile, "host.cpp");
    EXPECT_EQ(lines[i].line, 4711);
  }
}

TEST_F(RetryingCalls, AHeldFileIsHadWhenItsHolderLetsGo) {
  WriteWholeFile(folder_.Path() / "held", "x");
  FileHolder holder(folder_.Narrow("held"));
  auto sleep = STAND_IN(Sleep, [&](int nth, DWORD ms) {
    EXPECT_EQ(ms, 7u);
    if (nth == 12) holder.LetGo();  // more often than any other error would be retried
  });
  const ScopedFile file(Open(folder_.Wide("held"), GENERIC_WRITE, OPEN_EXISTING, INFINITE, 7));
  ASSERT_TRUE(file);
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 13u);
  EXPECT_EQ(messages[11],
            OpenLine(11, 32, "Retry", folder_.Narrow("held"), GENERIC_WRITE, OPEN_EXISTING, "4294967295, 7"))
      << "the access without the read bit, which was refused last";
  EXPECT_EQ(messages[12], OpenLine(12, 0, "Complete", folder_.Narrow("held"), GENERIC_READ | GENERIC_WRITE,
                                   OPEN_EXISTING, "4294967295, 7"));
}

TEST_F(RetryingCalls, ASuccessAfterRetriesRestoresNothing) {
  WriteWholeFile(folder_.Path() / "x", "x");
  FakeClock clock;
  auto create = FAIL_CALL(CreateFileW, 1, ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
  auto copy = FAIL_CALL(CopyFileW, 1, ERROR_ACCESS_DENIED, FALSE);
  const ScopedFile file(Open(folder_.Wide("x"), GENERIC_READ, OPEN_ALWAYS, 1000, 10));
  EXPECT_TRUE(file);
  EXPECT_EQ(GetLastError(), 183u) << "what the call itself left";
  EXPECT_TRUE(CopyFileX(HOST, folder_.Wide("x").c_str(), folder_.Wide("y").c_str(), FALSE, 1000, 10));
  EXPECT_EQ(GetLastError(), 0u);
}

TEST_F(RetryingCalls, OtherErrorsGetTenRetries) {
  FakeClock clock;
  EXPECT_EQ(Open(folder_.Wide("no"), GENERIC_READ, OPEN_EXISTING, INFINITE, 120000), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 2u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(10, 60000));
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 11u);
  const auto line = [&](int retryCount, const char* status) {
    return OpenLine(retryCount, 2, status, folder_.Narrow("no"), GENERIC_READ, OPEN_EXISTING, "4294967295, 60000");
  };
  EXPECT_EQ(messages[9], line(9, "Retry"));
  EXPECT_EQ(messages[10], line(10, "Complete"));
}

TEST_F(RetryingCalls, ABudgetThatCoversNoIntervalIsOneAttempt) {
  FakeClock clock;
  for (const DWORD timeoutMs : {0, 999}) {
    EXPECT_EQ(Open(folder_.Wide("no"), GENERIC_READ, OPEN_EXISTING, timeoutMs, 1000), INVALID_HANDLE_VALUE);
    EXPECT_EQ(FileMessages(), Messages{OpenLine(0, 2, "Complete", folder_.Narrow("no"), GENERIC_READ, OPEN_EXISTING,
                                                std::to_string(timeoutMs) + ", 1000")});
  }
  EXPECT_EQ(clock.Sleeps().size(), 0u);
}

TEST_F(RetryingCalls, EveryPassAsksForReadingFirst) {
  FakeClock clock;
  std::vector<DWORD> accesses;
  auto create = STAND_IN(CreateFileW, [&](int, LPCWSTR, DWORD access, auto...) {
    accesses.push_back(access);
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  });
  SECURITY_ATTRIBUTES security{sizeof security, nullptr, FALSE};
  EXPECT_EQ(CreateFileX(HOST, nullptr, GENERIC_WRITE, 7, &security, OPEN_EXISTING, 0x123, HANDLE(0xABC), 20, 20),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(accesses, (std::vector<DWORD>{0xC0000000, 0x40000000, 0xC0000000, 0x40000000}));
  const std::string end = "CreateFileX(NULL, 0x40000000, 0x7, 0x" + Hex(&security) + ", 0x3, 0x123, 0xabc, 20, 20)";
  EXPECT_EQ(FileMessages(),
            (Messages{"retryCount=0, lastErr=5, Retry, " + end, "retryCount=1, lastErr=5, Complete, " + end}));
  for (const DWORD access : {0ul, GENERIC_READ, GENERIC_READ | GENERIC_WRITE}) {  // nothing to be added
    accesses.clear();
    EXPECT_EQ(CreateFileX(HOST, nullptr, access, 7, nullptr, OPEN_EXISTING, 0, nullptr, 0, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(accesses, std::vector<DWORD>{access});
  }
  TakeLines(channel::kFileOperation);
}

TEST_F(RetryingCalls, CopyMakesTheTargetsFolderAndOverwrites) {
  WriteWholeFile(folder_.Path() / "from", "new");
  const std::wstring from = folder_.Wide("from"), to = folder_.Wide("a/b/to");
  EXPECT_TRUE(CopyFileX(HOST, from.c_str(), to.c_str(), TRUE, 0, 0));
  WriteWholeFile(folder_.Path() / "a/b/to", "longer than before");
  EXPECT_TRUE(CopyFileX(HOST, from.c_str(), to.c_str(), FALSE, 0, 0));
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "a/b/to"), "new");
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(RetryingCalls, CopyRetriesAndReportsAsOpening) {
  WriteWholeFile(folder_.Path() / "from", "x");
  WriteWholeFile(folder_.Path() / "to", "y");
  const std::wstring from = folder_.Wide("from"), to = folder_.Wide("to");
  FakeClock clock;
  EXPECT_FALSE(CopyFileX(HOST, from.c_str(), to.c_str(), TRUE, 1000, 1000));
  EXPECT_EQ(GetLastError(), 80u);
  std::string end = "CopyFileX(" + folder_.Narrow("from") + ", " + folder_.Narrow("to") + ", 1, 1000, 1000)";
  EXPECT_EQ(FileMessages(),
            (Messages{"retryCount=0, lastErr=80, Retry, " + end, "retryCount=1, lastErr=80, Complete, " + end}));

  FileHolder holder(folder_.Narrow("to"));
  EXPECT_FALSE(CopyFileX(HOST, from.c_str(), to.c_str(), FALSE, 0, 1000));
  EXPECT_EQ(GetLastError(), 32u);
  EXPECT_EQ(ReadWholeFile(folder_.Path() / "from"), "x");
  end = "CopyFileX(" + folder_.Narrow("from") + ", " + folder_.Narrow("to") + ", 0, 0, 1000)";
  EXPECT_EQ(FileMessages(), Messages{"retryCount=0, lastErr=32, Complete, " + end});
}

TEST_F(RetryingCalls, DeletingAMissingFileSaysNothing) {
  FakeClock clock;
  EXPECT_FALSE(DeleteFileX(HOST, folder_.Wide("no").c_str(), 5000, 1000));
  EXPECT_EQ(GetLastError(), 2u);
  EXPECT_FALSE(DeleteFileX(HOST, folder_.Wide("no/no").c_str(), INFINITE, 1000));
  EXPECT_EQ(GetLastError(), 3u);
  EXPECT_EQ(clock.Sleeps().size(), 0u);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(RetryingCalls, DeletingSleepsFirstAndTriesOnceMoreWithoutABudget) {
  FakeClock clock;
  WriteWholeFile(folder_.Path() / "x", "x");
  auto remove = FAIL_CALL(DeleteFileW, 1, ERROR_ACCESS_DENIED, FALSE, 1000);
  const std::wstring path = folder_.Wide("x");
  const auto sleepsOf = [&](DWORD timeoutMs, DWORD intervalMs) {
    const size_t before = clock.Sleeps().size();
    SetLastError(kUntouched);
    EXPECT_FALSE(DeleteFileX(HOST, path.c_str(), timeoutMs, intervalMs));
    EXPECT_EQ(GetLastError(), 5u);
    EXPECT_EQ(FileMessages(), Messages{"lastErr=5, DeleteFileX(" + folder_.Narrow("x") + ")"});
    const std::vector<DWORD> all = clock.Sleeps();
    return std::vector<DWORD>(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
  };
  EXPECT_EQ(sleepsOf(0, 100), std::vector<DWORD>(1, 100));
  EXPECT_EQ(sleepsOf(250, 100), std::vector<DWORD>(3, 100));
  EXPECT_EQ(sleepsOf(0, 70000), std::vector<DWORD>(1, 60000));
  EXPECT_EQ(sleepsOf(3, 0), std::vector<DWORD>(4, 0)) << "an interval of 0 takes a millisecond of the budget";
}

TEST_F(RetryingCalls, DeletingWaitsForAHolder) {
  WriteWholeFile(folder_.Path() / "held", "x");
  FileHolder holder(folder_.Narrow("held"));
  auto sleep = STAND_IN(Sleep, [&](int nth, DWORD) {
    if (nth == 30) holder.LetGo();
  });
  EXPECT_TRUE(DeleteFileX(HOST, folder_.Wide("held").c_str(), INFINITE, 5));
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "held"));
  EXPECT_EQ(FileMessages(), Messages{"lastErr=32, DeleteFileX(" + folder_.Narrow("held") + ")"});
}

TEST_F(RetryingCalls, AReadOnlyFileIsNotDeleted) {
  WriteWholeFile(folder_.Path() / "x", "x");
  SetFileAttributesW(folder_.Wide("x").c_str(), FILE_ATTRIBUTE_READONLY);
  FakeClock clock;
  EXPECT_FALSE(DeleteFileX(HOST, folder_.Wide("x").c_str(), 0, 10));
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>{10});
  EXPECT_EQ(FileMessages().size(), 1u);
  SetFileAttributesW(folder_.Wide("x").c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_TRUE(DeleteFileX(HOST, folder_.Wide("x").c_str(), 0, 10));
}

}  // namespace
}  // namespace qel::test
