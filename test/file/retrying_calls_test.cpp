#include "test/file/file_test.h"

namespace qel::test {
namespace {

class RetryingCalls : public FileTest {
 protected:
  static HANDLE Open(const std::wstring& path, DWORD access, DWORD disposition, DWORD timeoutMs = 0,
                     DWORD intervalMs = 0) {
    return CreateFileX(HOST, path.c_str(), access, FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       nullptr, timeoutMs, intervalMs);
  }
  BOOL Copy(BOOL failIfExists, DWORD timeoutMs, DWORD intervalMs) {
    return CopyFileX(HOST, Wide("from").c_str(), Wide("to").c_str(), failIfExists, timeoutMs, intervalMs);
  }
  static std::string Attempt(int retryCount, int error, const char* status, const std::string& call) {
    return Print("host.cpp(4711): retryCount=%d, lastErr=%d, %s, ", retryCount, error, status) + call;
  }
};

TEST_F(RetryingCalls, OpeningForWritingMakesTheFoldersAndReadsToo) {
  const std::wstring path = Wide("a/b/new.bin");
  ScopedFile file(Open(path, GENERIC_WRITE, CREATE_ALWAYS));
  ASSERT_TRUE(file);
  EXPECT_EQ(GetLastError(), 0u);
  DWORD count = 0;
  char byte = 'x';
  EXPECT_TRUE(WriteFile(file.Get(), &byte, 1, &count, nullptr));
  EXPECT_TRUE(ReadFile(file.Get(), &byte, 1, &count, nullptr));
  file.Close();

  file = ScopedFile(Open(L"\"" + path + L"\"", GENERIC_WRITE, CREATE_ALWAYS));
  EXPECT_TRUE(file) << "quotes belong to the path";
  EXPECT_EQ(GetLastError(), 183u);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(RetryingCalls, OnlyAFileThatMayBeNewGetsItsFolders) {
  EXPECT_EQ(Open(Wide("a/x"), GENERIC_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 3u);
  EXPECT_EQ(Open(Wide("a/x"), GENERIC_READ, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 3u);
  EXPECT_FALSE(Exists("a"));
}

TEST_F(RetryingCalls, FailuresAreRetriedAsTheirErrorAndTheBudgetAllow) {
  Write("held", "x");
  Write("from", "x");
  Write("to", "y");
  FileHolder holder(Text("held")), targetHolder(Text("to"));
  const auto open = [this](const char* name, DWORD timeoutMs, DWORD intervalMs) {
    return Open(Wide(name), GENERIC_READ, OPEN_EXISTING, timeoutMs, intervalMs) != INVALID_HANDLE_VALUE;
  };
  const std::string opening = ", 0x80000000, 0x1, 0x00000000, 0x3, 0x80, 0x0, ";
  const std::string held = "CreateFileX(" + Text("held") + opening, missing = "CreateFileX(" + Text("no") + opening;
  const std::string copy = "CopyFileX(" + Text("from") + ", " + Text("to");
  const struct {
    std::function<bool()> call;
    int error, retries;
    DWORD intervalMs;
    std::string line;
  } cases[] = {
      {[&] { return open("held", 3000, 1000); }, 32, 3, 1000, held + "3000, 1000)"},
      {[&] { return open("no", INFINITE, 120000); }, 2, 10, 60000, missing + "4294967295, 60000)"},
      {[&] { return open("no", 0, 1000); }, 2, 0, 0, missing + "0, 1000)"},
      {[&] { return open("no", 999, 1000); }, 2, 0, 0, missing + "999, 1000)"},
      {[&] { return Copy(TRUE, 1000, 1000) != 0; }, 80, 1, 1000, copy + ", 1, 1000, 1000)"},
      {[&] { return Copy(FALSE, 0, 1000) != 0; }, 32, 0, 0, copy + ", 0, 0, 1000)"},
  };
  for (const auto& [call, error, retries, intervalMs, line] : cases) {
    FakeClock clock;
    EXPECT_FALSE(call()) << line;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << line;
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(static_cast<size_t>(retries), intervalMs)) << line;
    Messages expected;
    for (int i = 0; i < retries; ++i) expected.push_back(Attempt(i, error, "Retry", line));
    expected.push_back(Attempt(retries, error, "Complete", line));
    EXPECT_EQ(TakePlacedMessages(channel::kFileOperation), expected);
  }
}

TEST_F(RetryingCalls, AHeldFileIsHadWhenItsHolderLetsGo) {
  Write("held", "x");
  FileHolder holder(Text("held"));
  auto sleep = STAND_IN(Sleep, [&](int nth, DWORD ms) {
    EXPECT_EQ(ms, 7u);
    if (nth == 12) holder.LetGo();  // more often than any other error would be retried
  });
  const ScopedFile file(Open(Wide("held"), GENERIC_WRITE, OPEN_EXISTING, INFINITE, 7));
  ASSERT_TRUE(file);
  const Messages messages = TakePlacedMessages(channel::kFileOperation);
  ASSERT_EQ(messages.size(), 13u);
  const std::string call = "CreateFileX(" + Text("held"), rest = ", 0x1, 0x00000000, 0x3, 0x80, 0x0, 4294967295, 7)";
  EXPECT_EQ(messages[11], Attempt(11, 32, "Retry", call + ", 0x40000000" + rest)) << "the access refused last";
  EXPECT_EQ(messages[12], Attempt(12, 0, "Complete", call + ", 0xc0000000" + rest));
}

TEST_F(RetryingCalls, ASuccessAfterRetriesRestoresNothing) {
  Write("from", "x");
  FakeClock clock;
  auto create = FAIL_CALL(CreateFileW, 1, ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
  auto copy = FAIL_CALL(CopyFileW, 1, ERROR_ACCESS_DENIED, FALSE);
  const ScopedFile file(Open(Wide("from"), GENERIC_READ, OPEN_ALWAYS, 1000, 10));
  EXPECT_TRUE(file);
  EXPECT_EQ(GetLastError(), 183u) << "what the call itself left";
  EXPECT_TRUE(Copy(FALSE, 1000, 10));
  EXPECT_EQ(GetLastError(), 0u);
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
  const std::string call = "CreateFileX(NULL, 0x40000000, 0x7, " + Address(&security) + ", 0x3, 0x123, 0xabc, 20, 20)";
  EXPECT_EQ(TakePlacedMessages(channel::kFileOperation),
            (Messages{Attempt(0, 5, "Retry", call), Attempt(1, 5, "Complete", call)}));
  for (const DWORD access : {0ul, GENERIC_READ, GENERIC_READ | GENERIC_WRITE}) {  // nothing to be added
    accesses.clear();
    EXPECT_EQ(CreateFileX(HOST, nullptr, access, 7, nullptr, OPEN_EXISTING, 0, nullptr, 0, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(accesses, std::vector<DWORD>{access});
  }
  TakeLines(channel::kFileOperation);
}

TEST_F(RetryingCalls, CopyMakesTheTargetsFolderAndOverwrites) {
  Write("from", "new");
  const std::wstring from = Wide("from"), to = Wide("a/b/to");
  EXPECT_TRUE(CopyFileX(HOST, from.c_str(), to.c_str(), TRUE, 0, 0));
  Write("a/b/to", "longer than before");
  EXPECT_TRUE(CopyFileX(HOST, from.c_str(), to.c_str(), FALSE, 0, 0));
  EXPECT_EQ(Read("a/b/to"), "new");
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(RetryingCalls, DeletingAMissingFileSaysNothing) {
  FakeClock clock;
  ExpectFailures({{[&] { return DeleteFileX(HOST, Wide("no").c_str(), 5000, 1000); }, 2, ""},
                  {[&] { return DeleteFileX(HOST, Wide("no/no").c_str(), INFINITE, 1000); }, 3, ""}});
  EXPECT_EQ(clock.Sleeps().size(), 0u);
}

TEST_F(RetryingCalls, DeletingSleepsFirstAndTriesOnceMoreWithoutABudget) {
  Write("x", "x");
  SetFileAttributesW(Wide("x").c_str(), FILE_ATTRIBUTE_READONLY);
  const struct {
    DWORD timeoutMs, intervalMs;
    std::vector<DWORD> sleeps;
  } cases[] = {{0, 100, {100}},
               {250, 100, {100, 100, 100}},
               {0, 70000, {60000}},
               {3, 0, {0, 0, 0, 0}}};  // an interval of 0 takes a millisecond of the budget
  for (const auto& [timeoutMs, intervalMs, sleeps] : cases) {
    FakeClock clock;
    ExpectFailures({{[&] { return DeleteFileX(HOST, Wide("x").c_str(), timeoutMs, intervalMs); }, 5,
                     "DeleteFileX(" + Text("x") + ")"}});
    EXPECT_EQ(clock.Sleeps(), sleeps);
  }
  SetFileAttributesW(Wide("x").c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_TRUE(DeleteFileX(HOST, Wide("x").c_str(), 0, 10));
}

TEST_F(RetryingCalls, DeletingWaitsForAHolder) {
  Write("held", "x");
  FileHolder holder(Text("held"));
  auto sleep = STAND_IN(Sleep, [&](int nth, DWORD) {
    if (nth == 30) holder.LetGo();
  });
  EXPECT_TRUE(DeleteFileX(HOST, Wide("held").c_str(), INFINITE, 5));
  EXPECT_FALSE(Exists("held"));
  EXPECT_EQ(FileMessages(), Messages{"lastErr=32, DeleteFileX(" + Text("held") + ")"});
}

}  // namespace
}  // namespace qel::test
