#include <climits>

#include "qelibaselib/platform/mfc/exception.h"
#include "test/support/bad_pointer.h"
#include "test/watchthreadstat/watch_case.h"

namespace qel::test {
namespace {

void __stdcall Count(unsigned long, void*, unsigned long, void* counter) { ++*static_cast<int*>(counter); }

// A callback with names of its own.
using Callback = std::function<void()>;
void __stdcall Invoke(unsigned long, void*, unsigned long, void* callback) { (*static_cast<Callback*>(callback))(); }

// The record's mutex, its second word.
HANDLE MutexOf(void* registration) { return static_cast<HANDLE*>(registration)[1]; }

class ThreadWatch2 : public testing::Test {
 protected:
  StillTimer timer_;
  ManualWatch watch_;
};

TEST_F(ThreadWatch2, CountsDelaysDownByWholeTicks) {
  const struct {
    long firstDelay, interval;
    std::vector<int> ticks;  // of ten
  } cases[] = {{0, 0, {}},
               {0, 3000, {3, 6, 9}},
               {0, 2500, {3, 6, 9}},
               {2500, 0, {3}},
               {1000, 3000, {1, 4, 7, 10}},
               {1, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
               {4000, 1001, {4, 6, 8, 10}},
               {-1, 9000, {9}},
               {1000, -7, {1}},
               {LONG_MAX, 1, {}},
               {LONG_MIN, LONG_MIN, {}}};
  EXPECT_EQ(CWatchThreadStat2::_Period_ms, 1000);
  EXPECT_EQ(timer_.dueTimes, std::vector<LONGLONG>{-1});
  EXPECT_EQ(timer_.periods, std::vector<LONG>{1000});
  for (const auto& expected : cases) {
    int calls = 0;
    void* registration = watch_.Start(expected.firstDelay, expected.interval, &Count, &calls);
    std::vector<int> ticks;
    for (int tick = 1; tick <= 10; ++tick) {
      const int before = calls;
      watch_.Tick();
      if (calls != before) ticks.push_back(tick);
    }
    EXPECT_EQ(ticks, expected.ticks) << expected.firstDelay << ", " << expected.interval;
    EXPECT_EQ(watch_.End(registration), 1);
  }
}

struct Call {
  unsigned long startTick;
  void* thread;
  unsigned long threadId;
  int who;
};
std::vector<Call> g_calls;
void __stdcall Record(unsigned long startTick, void* thread, unsigned long threadId, void* who) {
  g_calls.push_back({startTick, thread, threadId, static_cast<int>(reinterpret_cast<INT_PTR>(who))});
}

TEST_F(ThreadWatch2, CallsInOrderOfStartWithTheIdentityOfTheThread) {
  g_calls.clear();
  void* first = nullptr;
  void* second = nullptr;
  DWORD otherId = 0;
  auto ticks = STAND_IN(GetTickCount, [](int nth) { return static_cast<DWORD>(1000 * nth); });
  std::atomic<bool> go = false;
  std::thread other([&] {
    otherId = GetCurrentThreadId();
    first = watch_.Start(1000, 0, &Record, reinterpret_cast<void*>(1));
    while (!go) std::this_thread::yield();
  });
  while (watch_.Param().m_watchList.GetCount() == 0) std::this_thread::yield();
  second = watch_.Start(1000, 0, &Record, reinterpret_cast<void*>(2));
  watch_.Tick();
  ASSERT_EQ(g_calls.size(), 2u);
  EXPECT_EQ(g_calls[0].who, 1);
  EXPECT_EQ(g_calls[0].startTick, 1000u);
  EXPECT_EQ(g_calls[0].threadId, otherId);
  EXPECT_EQ(WaitForSingleObject(g_calls[0].thread, 0), WAIT_TIMEOUT) << "a real handle, the thread still runs";
  EXPECT_EQ(g_calls[1].who, 2);
  EXPECT_EQ(g_calls[1].startTick, 2000u);
  EXPECT_EQ(g_calls[1].threadId, GetCurrentThreadId());
  go = true;
  other.join();
  EXPECT_EQ(WaitForSingleObject(g_calls[0].thread, 5000), WAIT_OBJECT_0);
  EXPECT_TRUE(watch_.End(first));
  EXPECT_TRUE(watch_.End(second));
}

// While a callback runs the list is free for others, its own record is not.
TEST_F(ThreadWatch2, CallsBackOutsideTheListUnderTheRecord) {
  void* registration = nullptr;
  DWORD ownRecord = 0;
  BOOL listWasFree = FALSE;
  Callback lookAround = [&] {
    OnThread([&] {
      ownRecord = WaitForSingleObject(MutexOf(registration), 0);
      int calls = 0;
      listWasFree = watch_.End(watch_.Start(1, 1, &Count, &calls));
    });
  };
  registration = watch_.Start(1, 0, &Invoke, &lookAround);
  watch_.Tick();
  EXPECT_EQ(ownRecord, WAIT_TIMEOUT);
  EXPECT_TRUE(listWasFree);
  OnThread([&] {
    EXPECT_EQ(WaitForSingleObject(MutexOf(registration), 0), WAIT_OBJECT_0) << "released after the call";
    ReleaseMutex(MutexOf(registration));
  });
  watch_.End(registration);
}

TEST_F(ThreadWatch2, EndWaitsForTheCallbackThatRuns) {
  std::atomic<bool> entered = false, leave = false, left = false;
  Callback stay = [&] {
    entered = true;
    while (!leave) std::this_thread::yield();
    left = true;
  };
  void* registration = watch_.Start(1, 0, &Invoke, &stay);
  std::thread ticker([this] { watch_.Tick(); });
  while (!entered) std::this_thread::yield();
  bool leftBeforeEnd = false;
  std::thread ender([&] {
    watch_.End(registration);
    leftBeforeEnd = left;
  });
  while (watch_.Param().m_watchList.GetCount() != 0) std::this_thread::yield();  // End has begun
  leave = true;
  ender.join();
  ticker.join();
  EXPECT_TRUE(leftBeforeEnd);
}

TEST_F(ThreadWatch2, WhatACallbackThrowsEndsInTheGuard) {
  TakeLines(channel::kAssert);
  std::vector<void*> registrations;
  Callback bad[] = {[] { throw 1; }, [] { throw new CException; }, &WriteBadAddress};
  for (Callback& each : bad) registrations.push_back(watch_.Start(1, 0, &Invoke, &each));
  int calls = 0;
  registrations.push_back(watch_.Start(1, 0, &Count, &calls));
  watch_.Tick();
  EXPECT_EQ(calls, 1) << "those behind are called";
  for (void* registration : registrations)
    OnThread([&] { EXPECT_TRUE(watch_.End(registration)) << "nothing stays locked"; });
  int caught = 0;
  for (const auto& message : TakeMessages(channel::kAssert)) caught += message.find("_CATCH_") != std::string::npos;
  EXPECT_EQ(caught, 3);
}

TEST(ThreadWatch2Lifecycle, AWatcherThatIsNotWaitedForEndsWithItsCallback) {
  LongCall call;
  Callback stay = [&] { call.Stay(); };
  int calls = 0;
  ScopedObject timer;  // ticks when the test says so
  auto create = STAND_IN(CreateWaitableTimerA, [&](auto...) {
    timer = ScopedObject(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    return DuplicateOf(timer.Get());
  });
  const StillTimer still;
  ExpectWatcherToEndWith<ManualWatch>(call, [&](ManualWatch& watch) {
    watch.Start(1, 1, &Invoke, &stay);
    watch.Start(1, 1, &Count, &calls);
    SetEvent(timer.Get());
  });
  EXPECT_EQ(calls, 0) << "the other registration was freed meanwhile";
}

TEST_F(ThreadWatch2, EndOfWhatWasNeverGivenIsALine) {
  int calls = 0;
  void* registration = watch_.Start(1, 1, &Count, &calls);
  TakeLines(channel::kAssert);
  int nothing[10] = {};
  EXPECT_EQ(watch_.End(nothing), 1);
  EXPECT_EQ(watch_.End(reinterpret_cast<void*>(0x10)), 1);
  EXPECT_EQ(TakeLines(channel::kAssert).size(), 2u);
  EXPECT_EQ(watch_.End(registration), 1);
  EXPECT_EQ(TakeLines(channel::kAssert).size(), 0u);
  EXPECT_EQ(watch_.End(registration), 1);
  EXPECT_EQ(TakeLines(channel::kAssert).size(), 1u) << "ended already";
}

TEST(ThreadWatch2Priority, FollowsTheFirstAndTheLastRegistration) {
  StillTimer timer;
  Priorities priorities;
  auto take = [&] { return std::exchange(priorities.values, {}); };
  int calls = 0;
  {
    ManualWatch watch;
    EXPECT_EQ(take(), std::vector<int>{THREAD_PRIORITY_LOWEST});
    void* first = watch.Start(1000, 0, &Count, &calls);
    EXPECT_EQ(take(), std::vector<int>{THREAD_PRIORITY_TIME_CRITICAL});
    void* second = watch.Start(1000, 0, &Count, &calls);
    watch.End(first);
    EXPECT_EQ(watch.End(nullptr), 0);
    EXPECT_EQ(take(), std::vector<int>{});
    watch.End(second);
    EXPECT_EQ(take(), std::vector<int>{THREAD_PRIORITY_LOWEST});
  }
  EXPECT_EQ(take(), std::vector<int>{THREAD_PRIORITY_HIGHEST});
}

TEST(ThreadWatch2Lifecycle, KeepsNoHandles) {
  StillTimer timer;
  int calls = 0;
  { ManualWatch once; }
  const unsigned long before = OpenHandleCount();
  {
    ManualWatch watch;
    watch.End(watch.Start(1, 1, &Count, &calls));
  }
  EXPECT_EQ(OpenHandleCount(), before);
  {
    ManualWatch watch;
    for (int i = 0; i < 3; ++i) watch.Start(1, 1, &Count, &calls);
  }
  EXPECT_EQ(calls, 0) << "left registrations are freed without a call";
}

// The first step of the start that fails ends it; what works without the watcher thread still does.
TEST(ThreadWatch2Lifecycle, SurvivesAFailedStart) {
  StillTimer timer;
  int calls = 0;
  const std::pair<FailingCall, std::tuple<bool, bool, bool>> cases[] = {
      {FAILING_CALL(CreateEventW, ERROR_NOT_ENOUGH_MEMORY, nullptr), {false, false, false}},
      {FAILING_CALL(CreateMutexW, ERROR_NOT_ENOUGH_MEMORY, nullptr), {true, false, false}},
      {FAILING_CALL(CreateWaitableTimerA, ERROR_NOT_ENOUGH_MEMORY, nullptr), {true, true, false}},
      {FAILING_CALL(SetWaitableTimer, ERROR_INVALID_PARAMETER, FALSE), {true, true, true}},
  };
  for (const auto& [call, made] : cases) {
    const auto failure = call.inject(1, 1);
    ManualWatch watch;
    EXPECT_EQ(watch.Thread(), nullptr) << call.name;
    watch.End(watch.Start(1, 1, &Count, &calls));
    const auto& param = watch.Param();
    EXPECT_EQ(std::tuple(param.m_hStopEvent != nullptr, param.m_hListMutex != nullptr, param.m_hTimer != nullptr), made)
        << call.name;
  }
  EXPECT_EQ(calls, 0);
}

TEST_F(ThreadWatch2, AStartThatFailsNeverCalls) {
  int calls = 0;
  {
    auto duplicate = FAIL_CALL(DuplicateHandle, 1, ERROR_NOT_ENOUGH_MEMORY, FALSE);
    EXPECT_EQ(watch_.Start(1, 1, &Count, &calls), nullptr) << "no handle of the thread";
  }
  {
    auto create = FAIL_CALL(CreateMutexW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
    EXPECT_NE(watch_.Start(1, 1, &Count, &calls), nullptr) << "looks like a success";
  }
  EXPECT_TRUE(watch_.Param().m_watchList.IsEmpty());
  watch_.Tick();
  EXPECT_EQ(calls, 0);
}

TEST_F(ThreadWatch2, ScopeRegistersAndEnds) {
  int calls = 0;
  {
    const CWatchThreadStat2Wrap scope(&watch_, 1, 1, &Count, &calls);
    EXPECT_EQ(watch_.Param().m_watchList.GetCount(), 1);
    watch_.Tick();
  }
  EXPECT_EQ(watch_.Param().m_watchList.GetCount(), 0);
  watch_.Tick();
  EXPECT_EQ(calls, 1);
  const CWatchThreadStat2Wrap nothing(nullptr, 1, 1, &Count, &calls);
}

// With the system's timer: the first tick comes at once, the second after a second.
TEST(ThreadWatch2RealTime, Ticks) {
  const Handle event = NewEvent();
  Callback signal = [&] { SetEvent(event); };
  CWatchThreadStat2 watch;
  const CWatchThreadStat2Wrap scope(&watch, 1, 1, &Invoke, &signal);
  EXPECT_EQ(WaitForSingleObject(event, 30000), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 30000), WAIT_OBJECT_0);
}

}  // namespace
}  // namespace qel::test
