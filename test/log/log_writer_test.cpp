#include "test/log/log_case.h"

namespace {

using namespace qel::test;

constexpr size_t kLimit = 1048576;

CHILD_ROLE(HoldMutex) {
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, Widen(arguments[0]).c_str());
  Say(WaitForSingleObject(mutex, INFINITE) == WAIT_OBJECT_0 ? "held" : "failed");
  Hear();
  ReleaseMutex(mutex);
  return 0;
}

// A child that owns the mutex of a channel, while the test keeps the object open.
struct MutexHolder {
  explicit MutexHolder(const std::wstring& stem)
      : open(CreateMutexW(nullptr, FALSE, MutexName(stem).c_str())), child("HoldMutex", {Narrow(MutexName(stem))}) {
    EXPECT_EQ(child.WaitForLine(), "held");
  }
  ~MutexHolder() { CloseHandle(open); }
  HANDLE open;
  ChildProcess child;
};

TEST_F(LogCase, LineHasEveryFieldInItsPlace) {
  auto time = STAND_IN(GetLocalTime, [](int, LPSYSTEMTIME now) { *now = {2024, 3, 2, 5, 14, 7, 9, 42}; });
  auto memory = STAND_IN(GlobalMemoryStatusEx, [](int, LPMEMORYSTATUSEX status) {
    EXPECT_EQ(status->dwLength, 64u);
    status->dwMemoryLoad = 37;
    return TRUE;
  });
  VemoLogOutFile(stem.c_str(), path.c_str(), 60000, -5, "C:\\a b\\source.cpp", "100% of\t\xE9\x01");
  EXPECT_EQ(Content(), "2024/03/05, 14:07:09.042, ML=37, " + ProgramPath() + ", " +
                           std::to_string(GetCurrentProcessId()) + ", " + std::to_string(GetCurrentThreadId()) +
                           ", C:\\a b\\source.cpp(-5):100% of\t\xE9\x01\r\n");
}

TEST_F(LogCase, AppendsWithoutTouchingTheLastError) {
  for (const DWORD error : {0ul, 1234ul}) {
    SetLastError(error);
    Write("first");
    EXPECT_EQ(GetLastError(), error);
    VemoLogOutFile(stem.c_str(), folder.Wide("missing/log.txt").c_str(), 0, 1, "", "lost");
    EXPECT_EQ(GetLastError(), error);
    VemoLogOutAssert("kept", 1, "source.cpp");
    EXPECT_EQ(GetLastError(), error);
  }
  const auto lines = ReadLines(folder.Path() / "log.txt");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message + lines[1].message, "firstfirst");
}

TEST_F(LogCase, TakesALineUpToTheLimitAndNoneAbove) {
  SetContent(std::string(kLimit, '-'));
  Write("last");
  const std::string content = Content();
  EXPECT_GT(content.size(), kLimit);
  Write("dropped");
  EXPECT_EQ(Content(), content);
  SetContent(std::string(kLimit + 1, '-'));
  Write("dropped");
  EXPECT_EQ(Content().size(), kLimit + 1);
}

TEST_F(LogCase, ReadsTheHighWordOfTheSizeAsSigned) {
  SetContent("-\r\n");
  DWORD high = 0, low = 0;
  auto find = STAND_IN(FindFirstFileW, [&](int, LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
    const HANDLE search = FindFirstFileW(pattern, data);
    data->nFileSizeHigh = high;
    data->nFileSizeLow = low;
    return search;
  });
  const auto writes = [&](DWORD sizeHigh, DWORD sizeLow) {
    high = sizeHigh;
    low = sizeLow;
    const size_t before = Content().size();
    Write("line");
    return Content().size() > before;
  };
  EXPECT_FALSE(writes(1, 0));
  EXPECT_FALSE(writes(0x7FFFFFFF, 0));
  EXPECT_FALSE(writes(0, 0xFFFFFFFF));
  EXPECT_TRUE(writes(0xFFFFFFFF, 0xFFFFFFFF));
  EXPECT_TRUE(writes(0x80000000, 0));
}

TEST_F(LogCase, DropsTheLineWhileAnotherOwnsTheMutex) {
  MutexHolder holder(stem);
  Write("dropped", 0);
  Write("dropped", 20);
  EXPECT_EQ(Content(), "");
  holder.child.Tell("end");
  holder.child.Wait();
  Write("written", 0);
  EXPECT_NE(Content(), "");
}

TEST_F(LogCase, TakesOverAnAbandonedMutexAndEndsTheCutLine) {
  for (const std::string cut : {"2024/03/05, 14:0", "2024/03/05, 14:0\r", "", "whole\r\n"}) {
    SetContent(cut);
    MutexHolder holder(stem);
    holder.child.Kill();
    Write("after");
    const std::string content = Content();
    const size_t end = cut.empty() ? 0 : content.find("\r\n") + 2;
    EXPECT_EQ(content.substr(0, end), cut.empty() ? "" : cut.substr(0, cut.find('\r')) + "\r\n");
    LogLine line;
    EXPECT_TRUE(ParseLine(content.substr(end), line)) << content;
    Write("once more", 0);
    EXPECT_GT(Content().size(), content.size());
  }
}

TEST_F(LogCase, NamesTheMutexByUserOrByTwoDollars) {
  std::vector<std::wstring> names;
  auto create = WATCH_CALL(CreateMutexW, [&](LPSECURITY_ATTRIBUTES security, BOOL owned, LPCWSTR name) {
    EXPECT_TRUE(!security && !owned);
    names.push_back(name);
  });
  Write("user known");
  {
    auto user = FAIL_CALL(GetUserNameW, 1, ERROR_INSUFFICIENT_BUFFER, FALSE);
    Write("user unknown");
    EXPECT_EQ(user.Calls(), 1);
  }
  stem.assign(300, L's');
  Write("long stem");
  VemoLogOutFile(nullptr, path.c_str(), 0, 0, "", "null stem");
  ASSERT_EQ(names.size(), 4u);
  stem.resize(0);
  EXPECT_EQ(names[0].substr(0, 15), L"Local\\qel-test-");
  EXPECT_EQ(names[0].substr(names[0].rfind(L"_")), MutexName(L"").substr(6));
  EXPECT_EQ(names[1].substr(names[1].rfind(L"_")), L"_$$");
  EXPECT_EQ(names[2], L"Local\\" + std::wstring(253, L's'));
  EXPECT_EQ(names[3], MutexName(L"(null)"));
}

TEST_F(LogCase, MutexFailureIsToldByTheWrapperWithTheWritersPosition) {
  TakeLines(qel::channel::kWinApiWrap);
  auto create = FAIL_CALL(CreateMutexW, 1, 8, nullptr);
  Write("dropped");
  EXPECT_EQ(create.Calls(), 2);  // the second one is the wrapper's own channel
  EXPECT_EQ(Content(), "");
  EXPECT_EQ(TakePlacedMessages(qel::channel::kWinApiWrap),
            Messages{"log_writer.cpp(555): lastErr=8, CreateMutexX(0x00000000, 0, " + Narrow(MutexName(stem)) + ")"});
}

TEST_F(LogCase, FailedWaitDropsTheLineAndClosesTheMutex) {
  auto wait = FAIL_CALL(WaitForSingleObject, 1, ERROR_INVALID_HANDLE, WAIT_FAILED);
  auto close = COUNT_CALLS(CloseHandle);
  Write("dropped");
  EXPECT_EQ(Content(), "");
  EXPECT_EQ(close.Calls(), 1);
}

TEST_F(LogCase, GivesBackWhatALineTook) {
  Write("first");
  const auto before = OpenHandleCount();
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, MutexName(stem).c_str());
  const auto writeDay = [&](const wchar_t* base) {
    VemoLogOutFileDayHis(stem.c_str(), folder.Wide().c_str(), base, L"txt", 0, 1, "source", "message");
  };
  for (int i = 0; i < 2; ++i) {
    Write("line");
    writeDay(L"day");
    writeDay(L"missing\\day");
  }
  SetContent(std::string(kLimit + 1, '-'));
  Write("dropped");
  EXPECT_EQ(OpenHandleCount(), before + 1);
  OnThread([&] {
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    ReleaseMutex(mutex);
  });
  CloseHandle(mutex);
}

TEST_F(LogCase, SurvivesEveryBadString) {
  // An address that is not there, and text that would end on a page that cannot be read.
  const PageBuffer page;
  std::fill(page.Begin(), page.End(), 'x');
  const auto* narrow = reinterpret_cast<const char*>(page.End() - 3);
  const auto* wide = reinterpret_cast<const wchar_t*>(page.End()) - 3;
  for (const char* bad : {reinterpret_cast<const char*>(16), narrow}) {
    VemoLogOutFile(stem.c_str(), path.c_str(), 60000, 1, bad, "message");
    VemoLogOutFile(stem.c_str(), path.c_str(), 60000, 1, "source", bad);
    VemoLogOutAssert(bad, 1, bad);
    VemoFileLogOut(bad, 1, bad);
  }
  for (const wchar_t* bad : {reinterpret_cast<const wchar_t*>(16), wide}) {
    VemoLogOutFile(bad, path.c_str(), 60000, 1, "source", "message");
    VemoLogOutFile(stem.c_str(), bad, 60000, 1, "source", "message");
    VemoLogOutFileDayHis(stem.c_str(), bad, L"base", L"txt", 60000, 1, "source", "message");
    VemoLogOutFileDayHis(bad, folder.Wide().c_str(), L"base", bad, 60000, 1, "source", "message");
  }
  VemoLogOutFile(stem.c_str(), nullptr, 60000, 1, "source", "message");
  VemoLogOutFile(stem.c_str(), L"", 60000, 1, "source", "message");
  VemoLogOutFile(nullptr, nullptr, 0, 0, nullptr, nullptr);
  EXPECT_EQ(Content(), "");  // nothing of those lines
  Write("good", 0);          // and the mutex is free
  EXPECT_NE(Content(), "");
}

TEST_F(LogCase, WritesNullAndLongTextsAndAnyBytes) {
  VemoLogOutFile(stem.c_str(), path.c_str(), 60000, 1, nullptr, nullptr);
  EXPECT_TRUE(Content().ends_with(", (null)(1):(null)\r\n")) << Content();
  for (const size_t size : {3900u, 4000u, 4095u, 4096u, 4097u, 900000u}) {
    SetContent("");
    const std::string message(size, '\x80');
    Write(message.c_str());
    EXPECT_TRUE(Content().ends_with("):" + message + "\r\n")) << size;
  }
}

TEST_F(LogCase, LosesTheLineWhereTheFileCannotBeWritten) {
  VemoLogOutFile(stem.c_str(), folder.Wide("missing/log.txt").c_str(), 60000, 1, "source", "message");
  VemoLogOutFile(stem.c_str(), folder.Wide().c_str(), 60000, 1, "source", "a folder");
  VemoLogOutFile(stem.c_str(), L"?:\\???\\log.txt", 60000, 1, "source", "placeholder");
  const HANDLE held = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  Write("shut out");
  CloseHandle(held);
  EXPECT_EQ(Content(), "");
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.Path())) ++entries;
  EXPECT_EQ(entries, 1u);
}

TEST(LogChannels, EntryPointsWriteToTheirFiles) {
  using EntryPoint = void (*)(const char*, int, const char*);
  const std::tuple<EntryPoint, qel::LogChannel, const char*> channels[] = {
      {&VemoLogOutAssert, qel::channel::kAssert, ""},
      {&VemoLogOutMisc, qel::channel::kMisc, ""},
      {&VemoLockLogOut, qel::channel::kLock, ""},
      {&VemoFileLogOut, qel::channel::kFileOperation, "(null)"}};
  for (const auto& [write, channel, ofNull] : channels) {
    TakeLines(channel);
    std::vector<std::wstring> mutexes;
    auto create = WATCH_CALL(CreateMutexW, [&](auto, auto, LPCWSTR name) { mutexes.push_back(name); });
    std::vector<DWORD> timeouts;
    auto wait = WATCH_CALL(WaitForSingleObject, [&](HANDLE, DWORD ms) { timeouts.push_back(ms); });
    write("text", 3, "source.cpp");
    write(nullptr, 4, nullptr);
    EXPECT_EQ(TakePlacedMessages(channel), (Messages{"source.cpp(3): text", std::string("(null)(4): ") + ofNull}));
    EXPECT_EQ(mutexes, std::vector<std::wstring>(2, MutexName(channel.mutexStem)));
    EXPECT_EQ(timeouts, std::vector<DWORD>(2, 60000));
  }
}

CHILD_ROLE(LogWithoutFolder) {
  SetLastError(77);
  VemoLogOutMisc("lost", 1, "source.cpp");
  VemoFileLogOut(nullptr, 1, nullptr);
  return GetLastError() == 77 ? 0 : 1;
}

TEST(LogChannels, LineBeforeTheFolderIsSetIsLost) { EXPECT_EQ(ChildProcess("LogWithoutFolder").Wait(), 0); }

}  // namespace
