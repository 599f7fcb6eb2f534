#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "qelibaselib/qelibaselib.h"
#include "test/support/log_folder.h"
#include "test/watchthreadstat/watch_case.h"

namespace qel::test {
namespace {

struct Seen {
  std::atomic<int> calls = 0;
  unsigned long threadId = 0;
  DWORD waitForThread = 0;
  HANDLE called = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ~Seen() { CloseHandle(called); }
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
  std::vector<int> priorities;
  auto priority = STAND_IN(SetThreadPriority, [&](int, HANDLE, int value) {
    priorities.push_back(value);
    return TRUE;
  });
  Seen seen;
  { const CWatchThreadStat watch(0xFFFFFFFF, -3, &See, &seen); }
  { const CWatchThreadStat watch(25, 7, &See, &seen); }
  EXPECT_EQ(timer.dueTimes, (std::vector<LONGLONG>{-42949672950000, -250000}));
  EXPECT_EQ(timer.periods, (std::vector<LONG>{-3, 7}));
  EXPECT_EQ(priorities, (std::vector<int>{15, 15})) << "time-critical from the start, left so at the end";
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
  LongCall call;
  HANDLE watcher;
  {
    const NoPatience impatient;
    OpenWatch watch(0, 1, &StayLong, &call);
    ASSERT_EQ(WaitForSingleObject(call.entered, 30000), WAIT_OBJECT_0);
    watcher = DuplicateOf(watch.Thread()->m_hThread);
  }
  SetEvent(call.leave);
  EXPECT_EQ(WaitForSingleObject(watcher, 20000), WAIT_OBJECT_0);
  CloseHandle(watcher);
}

TEST(ThreadWatch, AFailedStartNeverCalls) {
  LogFolder();
  Seen seen;
  {
    auto create = FAIL_CALL(CreateEventW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
    auto timer = STAND_IN(CreateWaitableTimerA, [](int, auto...) -> HANDLE { return nullptr; });
    OpenWatch watch(0, 1, &See, &seen);
    EXPECT_EQ(timer.Calls(), 0);
    EXPECT_EQ(watch.Thread(), nullptr);
    EXPECT_NE(watch.Param().m_hThread, nullptr);
  }
  {
    auto duplicate = FAIL_CALL(DuplicateHandle, 1, ERROR_NOT_ENOUGH_MEMORY, FALSE);
    OpenWatch watch(0, 1, &See, &seen);
    EXPECT_EQ(watch.Param().m_hThread, nullptr);
    EXPECT_EQ(watch.Param().m_hStopEvent, nullptr);
  }
  {
    auto thread = FAIL_CALL(CreateThread, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
    OpenWatch watch(0, 1, &See, &seen);
    EXPECT_EQ(watch.Thread(), nullptr);
    EXPECT_NE(watch.Param().m_hTimer, nullptr);
  }
  EXPECT_EQ(seen.calls, 0);
}

}  // namespace
}  // namespace qel::test
