#include "test/watchthreadstat/watch_case.h"

namespace qel::test {
namespace {

struct Seen {
  std::atomic<int> calls = 0;
  unsigned long threadId = 0;
  DWORD waitForThread = 0;
  const Handle called = NewEvent();
};
void __stdcall See(void* thread, unsigned long threadId, void* argument) {
  auto& seen = *static_cast<Seen*>(argument);
  seen.threadId = threadId;
  seen.waitForThread = WaitForSingleObject(thread, 0);
  ++seen.calls;
  SetEvent(seen.called);
}

struct OpenWatch : CWatchThreadStat {
  using CWatchThreadStat::CWatchThreadStat;
  UINT RunHere() { return WatchThread(&m_param); }
  CWinThread* Thread() { return m_pWatchThread; }
  T_WatchParam& Param() { return m_param; }
};

TEST(ThreadWatch, CallsAtOnceThenPeriodicallyUntilItEnds) {
  Seen seen;
  {
    const CWatchThreadStat watch(0, 10, &See, &seen);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(seen.called, 30000), WAIT_OBJECT_0) << i;
  }
  const int calls = seen.calls;
  EXPECT_GE(calls, 3);
  EXPECT_EQ(seen.threadId, GetCurrentThreadId()) << "the thread that made it is watched";
  EXPECT_EQ(seen.waitForThread, WAIT_TIMEOUT) << "by a real handle";
  Sleep(50);
  EXPECT_EQ(seen.calls, calls);
}

TEST(ThreadWatch, WithoutAPeriodCallsOnce) {
  Seen seen;
  const CWatchThreadStat watch(1, 0, &See, &seen);
  EXPECT_EQ(WaitForSingleObject(seen.called, 30000), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(seen.called, 100), WAIT_TIMEOUT);
  EXPECT_EQ(seen.calls, 1);
}

TEST(ThreadWatch, TimesReachTheTimerUnchanged) {
  StillTimer timer;
  Priorities priorities;
  Seen seen;
  { const CWatchThreadStat watch(0xFFFFFFFF, -3, &See, &seen); }
  { const CWatchThreadStat watch(25, 7, &See, &seen); }
  EXPECT_EQ(timer.dueTimes, (std::vector<LONGLONG>{-42949672950000, -250000}));
  EXPECT_EQ(timer.periods, (std::vector<LONG>{-3, 7}));
  EXPECT_EQ(priorities.values, (std::vector<int>{15, 15})) << "time-critical from the start, left so at the end";
  EXPECT_EQ(seen.calls, 0);
}

TEST(ThreadWatch, WaitsAgainAfterAnythingButStopAndTimer) {
  StillTimer timer;
  Seen seen;
  OpenWatch* watch;
  {
    // The watcher's own thread ends at once; then the procedure runs on this one.
    auto stop = STAND_IN(WaitForMultipleObjects, [](int, auto...) { return WAIT_OBJECT_0; });
    watch = new OpenWatch(1, 1, &See, &seen);
    ASSERT_NE(watch->Thread(), nullptr);
    EXPECT_EQ(WaitForSingleObject(watch->Thread()->m_hThread, 30000), WAIT_OBJECT_0);
  }
  {
    const DWORD answers[] = {WAIT_FAILED, 1, WAIT_TIMEOUT, 1, WAIT_ABANDONED, 0};
    auto wait = STAND_IN(WaitForMultipleObjects,
                         [&](int nth, DWORD count, const HANDLE* handles, BOOL all, DWORD timeoutMs) -> DWORD {
                           EXPECT_EQ(count, 2u);
                           EXPECT_EQ(handles[0], watch->Param().m_hStopEvent);
                           EXPECT_EQ(handles[1], watch->Param().m_hTimer);
                           EXPECT_FALSE(all);
                           EXPECT_EQ(timeoutMs, INFINITE);
                           return answers[nth - 1];
                         });
    EXPECT_EQ(watch->RunHere(), 0u);
    EXPECT_EQ(wait.Calls(), 6);
  }
  EXPECT_EQ(seen.calls, 2);
  delete watch;
}

void __stdcall StayLong(void*, unsigned long, void* call) { static_cast<LongCall*>(call)->Stay(); }

TEST(ThreadWatch, AWatcherThatIsNotWaitedForEndsWithItsCallback) {
  struct StayingWatch : OpenWatch {
    explicit StayingWatch(LongCall& call) : OpenWatch(0, 1, &StayLong, &call) {}
  };
  LongCall call;
  ExpectWatcherToEndWith<StayingWatch>(
      call, [](StayingWatch&) {}, call);
}

// The first step that fails ends the start; those before it leave their handles.
TEST(ThreadWatch, AFailedStartNeverCalls) {
  Seen seen;
  const std::pair<FailingCall, std::tuple<bool, bool, bool>> cases[] = {
      {FAILING_CALL(DuplicateHandle, ERROR_NOT_ENOUGH_MEMORY, FALSE), {false, false, false}},
      {FAILING_CALL(CreateEventW, ERROR_NOT_ENOUGH_MEMORY, nullptr), {true, false, false}},
      {FAILING_CALL(CreateThread, ERROR_NOT_ENOUGH_MEMORY, nullptr), {true, true, true}},
  };
  for (const auto& [call, made] : cases) {
    const auto failure = call.inject(1, 1);
    OpenWatch watch(0, 1, &See, &seen);
    EXPECT_EQ(watch.Thread(), nullptr) << call.name;
    const auto& param = watch.Param();
    EXPECT_EQ(std::tuple(param.m_hThread != nullptr, param.m_hStopEvent != nullptr, param.m_hTimer != nullptr), made)
        << call.name;
  }
  EXPECT_EQ(seen.calls, 0);
}

}  // namespace
}  // namespace qel::test
