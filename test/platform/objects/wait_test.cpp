// Waits that last, and what ends them.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

constexpr LONGLONG kUnitsPerMs = 10'000;

BOOL Arm(HANDLE timer, LONGLONG due, LONG periodMs = 0) {
  LARGE_INTEGER time;
  time.QuadPart = due;
  return SetWaitableTimer(timer, &time, periodMs, nullptr, nullptr, FALSE);
}
Handle NewTimer() { return CreateWaitableTimerA(nullptr, FALSE, nullptr); }

TEST(Waits, ForOneAndForSeveralEndByWhatHappensMeanwhile) {
  const Handle never = NewEvent(), waiting = NewEvent();
  const struct {
    Handle handle;
    void (*hold)(HANDLE);
    void (*letGo)(HANDLE);
  } rows[] = {
      {NewEvent(), [](HANDLE) {}, [](HANDLE event) { SetEvent(event); }},
      {CreateMutexW(nullptr, FALSE, nullptr), [](HANDLE mutex) { WaitForSingleObject(mutex, 0); },
       [](HANDLE mutex) { ReleaseMutex(mutex); }},
      {NewTimer(), [](HANDLE timer) { Arm(timer, -600'000 * kUnitsPerMs); }, [](HANDLE timer) { Arm(timer, -1); }},
  };
  for (const auto& row : rows) {
    const HANDLE handles[] = {never, row.handle};
    for (const auto& [count, limit] : {std::pair{1ul, kLongMs}, {1ul, INFINITE}, {2ul, kLongMs}}) {
      row.hold(row.handle);
      Worker waiter([&, count = count, limit = limit] {
        SetEvent(waiting);
        const DWORD result = WaitForMultipleObjects(count, handles + 2 - count, FALSE, limit);
        ReleaseMutex(row.handle);
        return result;
      });
      WaitForSingleObject(waiting, kLongMs);
      Sleep(2);
      row.letGo(row.handle);
      EXPECT_EQ(waiter.Join(), WAIT_OBJECT_0 + count - 1);
    }
  }
}

// Every signal is taken once, whoever waits alone or for several.
TEST(Events, NoSignalIsLostAmongManyWaiters) {
  constexpr int kRounds = 2000;
  const Handle turn = NewEvent(), taken = NewEvent(), stop = NewEvent(true);
  std::atomic<int> count{0};
  std::vector<std::unique_ptr<Worker>> workers;
  for (int i = 0; i < 3; ++i)
    workers.push_back(std::make_unique<Worker>([&]() -> DWORD {
      const HANDLE handles[] = {stop, turn};
      while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        ++count;
        SetEvent(taken);
      }
      return 0;
    }));
  for (int i = 0; i < kRounds; ++i) {
    SetEvent(turn);
    ASSERT_EQ(WaitForSingleObject(taken, kLongMs), WAIT_OBJECT_0);
  }
  SetEvent(stop);
  workers.clear();
  EXPECT_EQ(count, kRounds);
}

TEST(Timers, PeriodsTickOnAndMissedOnesBecomeOne) {
  const Handle timer = NewTimer();
  const ULONGLONG start = GetTickCount();
  Arm(timer, -50 * kUnitsPerMs);
  EXPECT_EQ(WaitForSingleObject(timer, kLongMs), WAIT_OBJECT_0);
  EXPECT_GE(GetTickCount() - start + 16, 50u) << "too early; the tick count steps";
  Arm(timer, -1, 20);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(WaitForSingleObject(timer, kLongMs), WAIT_OBJECT_0);
  Arm(timer, -1, 200);
  Sleep(500);  // ticks at 0, 200 and 400 ms
  EXPECT_EQ(WaitForSingleObject(timer, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(timer, 0), WAIT_TIMEOUT);
}

// A closed handle stays invalid though its place was given out again.
TEST(CloseHandle, AnOldValueDoesNotReachANewObject) {
  const HANDLE old = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  CloseHandle(old);
  std::vector<Handle> handles;
  for (int i = 0; i < 100; ++i) handles.emplace_back(NewEvent(true, true));
  bool reused = false;
  for (const Handle& handle : handles) reused |= static_cast<HANDLE>(handle) == old;
  if (!reused) EXPECT_CALL(CloseHandle(old), FALSE, ERROR_INVALID_HANDLE);
}

// More handles than the layer has places, one after the other.
TEST(CloseHandle, LeavesItsPlaceToOthers) {
  for (int i = 0; i < 0x11000; ++i) ASSERT_TRUE(CloseHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr))) << i;
}

}  // namespace
