#include "test/support/library.h"

namespace {

using namespace qel::test;

// Lets the library's threads start and keeps a handle of each, to wait for the end of those that nobody waits for.
class Threads {
 public:
  ~Threads() { Wait(); }
  void Wait() {
    for (int i = 0; i < count_; ++i) {
      EXPECT_EQ(WaitForSingleObject(handles_[i], 60000), WAIT_OBJECT_0);
      CloseHandle(handles_[i]);
    }
    count_ = 0;
  }
  int Started() const { return create_.Calls(); }

 private:
  std::atomic<int> count_ = 0;
  HANDLE handles_[16];
  StandIn<"CreateThread", decltype(&::CreateThread)> create_{[this](int, auto... arguments) {
    const HANDLE thread = CreateThread(arguments...);
    EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &handles_[count_++], 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
    return thread;
  }};
};

struct Display : testing::Test {
  Display() { TakeLines(qel::channel::kAssert); }
};

TEST_F(Display, EndsBeforeItReturnsWhenAsked) {
  std::atomic<int> timeCritical = 0;
  auto priority =
      WATCH_CALL(SetThreadPriority, [&](HANDLE, int value) { timeCritical += value == THREAD_PRIORITY_TIME_CRITICAL; });
  auto beep = STAND_IN(Beep, [](int, DWORD frequency, DWORD ms) {
    EXPECT_EQ(frequency, 7000u);
    EXPECT_EQ(ms, 300u);
    return TRUE;
  });
  auto time = STAND_IN(GetLocalTime, [](int, LPSYSTEMTIME now) {
    EXPECT_EQ(VemoOMPGetNumThreads(), 1) << "the display's own thread";
    GetLocalTime(now);
  });
  Threads threads;
  VemoDispInf("text", 1);
  EXPECT_EQ(threads.Started(), 2);
  EXPECT_EQ(timeCritical, 2);
  VemoDispInf("", 1);
  EXPECT_EQ(threads.Started(), 4);
  EXPECT_TRUE(TakeLines(qel::channel::kAssert).empty());
}

TEST_F(Display, LeavesNoHandleBehind) {
  auto beep = ANSWER_CALL(Beep, TRUE);
  const auto display = [](int waitForEnd) {
    Threads threads;
    VemoDispInf("text", waitForEnd);
  };
  display(1);
  const auto before = OpenHandleCount();
  for (const int waitForEnd : {1, 0, 1}) display(waitForEnd);
  EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(Display, GoesOnAloneOtherwise) {
  auto beep = ANSWER_CALL(Beep, TRUE);
  Threads threads;
  for (int i = 0; i < 4; ++i) VemoDispInf("text", 0);
  threads.Wait();
  EXPECT_TRUE(TakeLines(qel::channel::kAssert).empty());
}

TEST_F(Display, BeepsUntilTheTextIsThere) {
  auto beep = ANSWER_CALL(Beep, TRUE);
  // The first answers of the beeper's look at its event: not signalled yet.
  std::atomic<int> looks = 0;
  auto wait = STAND_IN(WaitForSingleObject, [&](int, HANDLE handle, DWORD ms) {
    if (ms == 0 && ++looks <= 3) return DWORD{WAIT_TIMEOUT};
    return WaitForSingleObject(handle, ms);
  });
  std::atomic<int> pauses = 0;
  auto sleep = STAND_IN(Sleep, [&](int, DWORD ms) { pauses += ms == 100; });
  VemoDispInf("text", 1);
  EXPECT_GE(beep.Calls(), 3);
  EXPECT_EQ(pauses, beep.Calls());
}

TEST_F(Display, IsGivenUpWithoutAThread) {
  auto create = FAIL_CALL(CreateThread, 1, 8, nullptr);
  VemoDispInf("text", 1);
  const auto messages = TakeMessages(qel::channel::kAssert);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(messages[0].ends_with(", lec=8")) << messages[0];
}

TEST_F(Display, BadTextStaysInside) {
  VemoDispInf(reinterpret_cast<const char*>(16), 1);
  EXPECT_FALSE(TakeLines(qel::channel::kAssert).empty());
}

}  // namespace
