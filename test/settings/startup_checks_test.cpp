#include "test/settings/assertions.h"

namespace {

using namespace qel::test;

std::string Stem() { return Narrow(UniqueName()); }

int Check(const std::string& stem, DWORD timeoutMs, bool showError = false) {
  return VemoChkMultiStartUp(21, "host.cpp", Widen(stem).c_str(), showError, timeoutMs);
}

CHILD_ROLE(Start) {
  LogFolder();
  Say("ready");
  Hear();
  Say(std::to_string(Check(arguments[0], 0)));
  Hear();
  return 0;
}

// Both ends of a line: "Warning" or "Error" before, the position behind is the host's.
std::string Line(const std::string& kind) {
  return "host.cpp(21): " + kind + " : Multi Start Up, " + ProgramPath() + ", lc=0xb7";
}

struct MultiStartUp : testing::Test {
  MultiStartUp() { ForgetLines(); }
  ~MultiStartUp() override { ForgetLines(); }
  static void ForgetLines() {
    TakeLines(qel::channel::kMisc);
    TakeLines(qel::channel::kAssert);
  }
};

TEST_F(MultiStartUp, FirstInstanceIsAloneAtOnceAndSilent) {
  FakeClock clock;
  EXPECT_EQ(Check(Stem(), 3000), 0);
  EXPECT_TRUE(clock.Sleeps().empty());
  EXPECT_TRUE(TakeLines(qel::channel::kMisc).empty());
}

TEST_F(MultiStartUp, SecondInstanceTriesOnceASecond) {
  const std::string stem = Stem();
  ASSERT_EQ(Check(stem, 0), 0);
  for (const auto& [timeoutMs, attempts] : {std::pair{0ul, 1u}, {1ul, 1u}, {1000ul, 1u}, {1001ul, 2u}, {3000ul, 3u}}) {
    FakeClock clock;
    clock.now = 0xFFFFFFFF - 500;  // the ticks wrap meanwhile
    EXPECT_EQ(Check(stem, timeoutMs), 1);
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(attempts, 1000));
    EXPECT_EQ(TakePlacedMessages(qel::channel::kMisc), Messages(attempts, Line("Warning")));
    EXPECT_EQ(TakeAssertions(), Messages{""});
  }
}

TEST_F(MultiStartUp, ErrorIsWrittenAndDisplayedOnRequest) {
  const std::string stem = Stem();
  ASSERT_EQ(Check(stem, 0), 0);
  FakeClock clock;
  auto beep = ANSWER_CALL(Beep, TRUE);
  auto threads = COUNT_CALLS(CreateThread);
  EXPECT_EQ(Check(stem, 0, true), 1);
  EXPECT_EQ(threads.Calls(), 2);
  EXPECT_EQ(TakePlacedMessages(qel::channel::kMisc), (Messages{Line("Warning"), Line("Error")}));
}

TEST_F(MultiStartUp, MarkThatCannotBeMadeEndsTheTries) {
  FakeClock clock;
  auto create = FAIL_CALL(CreateEventW, 1, 8, nullptr);
  EXPECT_EQ(Check(Stem(), INFINITE), 1);
  EXPECT_EQ(create.Calls(), 1);
  EXPECT_TRUE(clock.Sleeps().empty());
  EXPECT_TRUE(TakeLines(qel::channel::kMisc).empty());
  EXPECT_EQ(TakeLines(qel::channel::kAssert).size(), 1u);
}

TEST_F(MultiStartUp, GoesOnWhenTheFirstInstanceEnds) {
  const std::string stem = Stem();
  auto first = std::make_unique<ChildProcess>("Start", Messages{stem});
  ASSERT_EQ(first->WaitForLine(), "ready");
  first->Tell("go");
  ASSERT_EQ(first->WaitForLine(), "0");
  auto sleep = STAND_IN(Sleep, [&](int nth, DWORD) {
    if (nth == 2) first.reset();  // killed, and waited for
  });
  EXPECT_EQ(Check(stem, INFINITE), 0);
  EXPECT_EQ(sleep.Calls(), 2);
  EXPECT_EQ(TakeLines(qel::channel::kMisc).size(), 2u);
  EXPECT_TRUE(TakeLines(qel::channel::kAssert).empty());
}

TEST_F(MultiStartUp, OneOfManyThatStartTogetherIsFirst) {
  const std::string stem = Stem();
  constexpr int kProcesses = 20;
  std::vector<ChildProcess> children;
  for (int i = 0; i < kProcesses; ++i) children.emplace_back("Start", Messages{stem});
  for (auto& child : children) ASSERT_EQ(child.WaitForLine(), "ready");
  for (auto& child : children) child.Tell("go");
  int first = 0;
  for (auto& child : children) first += child.WaitForLine() == "0";
  EXPECT_EQ(first, 1);
}

TEST_F(MultiStartUp, BadStemIsNoReasonToStart) {
  EXPECT_EQ(VemoChkMultiStartUp(1, nullptr, reinterpret_cast<const wchar_t*>(16), 0, 0), 1);
}

// The version that the reader finds next.
struct {
  DWORD platform, major, minor;
  LONG status;
} g_version;

LONG WINAPI FakeVersion(OSVERSIONINFOEXW* version) {
  EXPECT_EQ(version->dwOSVersionInfoSize, 284u);
  version->dwPlatformId = g_version.platform;
  version->dwMajorVersion = g_version.major;
  version->dwMinorVersion = g_version.minor;
  return g_version.status;
}

TEST(SystemVersion, IsFineHere) { EXPECT_EQ(VemoChkOSVer(), 1); }

TEST(SystemVersion, OldSystemsPassWithAnotherValue) {
  auto find = STAND_IN(GetProcAddress, [](int, HMODULE, LPCSTR name) {
    EXPECT_STREQ(name, "RtlGetVersion");
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FakeVersion));
  });
  const std::pair<std::tuple<DWORD, DWORD, DWORD>, bool> cases[] = {
      {{2, 5, 1}, true},  {{2, 6, 0}, true},  {{2, 10, 0}, true}, {{2, 5, 0}, false},
      {{2, 4, 9}, false}, {{1, 6, 0}, false}, {{0, 0, 0}, false}};
  for (const auto& [version, isSupported] : cases) {
    const auto& [platform, major, minor] = version;
    g_version = {platform, major, minor, 0};
    const int answer = VemoChkOSVer();
    EXPECT_NE(answer, 0) << platform << major << minor;
    EXPECT_EQ(answer == 1, isSupported) << platform << major << minor;
  }
}

TEST(SystemVersion, UnreadableOneIsRefusedAndDisplayed) {
  auto beep = ANSWER_CALL(Beep, TRUE);
  auto free = COUNT_CALLS(FreeLibrary);
  int waits = 0;  // for the end of the display
  auto wait = STAND_IN(WaitForSingleObject, [&, own = GetCurrentThreadId()](int, HANDLE handle, DWORD ms) {
    waits += ms == INFINITE && GetCurrentThreadId() == own;
    return WaitForSingleObject(handle, ms);
  });
  {
    auto load = FAIL_CALL(LoadLibraryA, 1, 126, nullptr);
    EXPECT_EQ(VemoChkOSVer(), 0);
    EXPECT_EQ(free.Calls(), 0);
    EXPECT_EQ(waits, 1);
  }
  auto find = FAIL_CALL(GetProcAddress, 1, 127, nullptr);
  EXPECT_EQ(VemoChkOSVer(), 0);
  EXPECT_EQ(free.Calls(), 1);
}

}  // namespace
