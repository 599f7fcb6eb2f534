#include <gtest/gtest.h>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

constexpr LONGLONG kUnitsPerMs = 10'000;

BOOL Arm(HANDLE timer, LONGLONG due, LONG periodMs = 0) {
  LARGE_INTEGER time;
  time.QuadPart = due;
  return SetWaitableTimer(timer, &time, periodMs, nullptr, nullptr, FALSE);
}
Handle NewTimer(BOOL manual = FALSE) { return CreateWaitableTimerA(nullptr, manual, nullptr); }

TEST(Timers, ADueTimeThatHasPassedSignalsAtOnce) {
  const Handle timer = NewTimer();
  for (const LONGLONG due : {0, -1, 1}) {
    EXPECT_CALL(Arm(timer, due), TRUE, kUntouched);
    EXPECT_EQ(WaitForSingleObject(timer, kLongMs), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(timer, 10), WAIT_TIMEOUT);
  }
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

TEST(Timers, AWaiterHearsOfANewDueTime) {
  const Handle timer = NewTimer(), never = NewEvent(), waiting = NewEvent();
  const HANDLE handles[] = {timer, never};
  Arm(timer, -600'000 * kUnitsPerMs);
  for (const DWORD count : {1, 2}) {
    Worker waiter([&] {
      SetEvent(waiting);
      return WaitForMultipleObjects(count, handles, FALSE, kLongMs);
    });
    WaitForSingleObject(waiting, kLongMs);
    Sleep(2);
    Arm(timer, -1);
    EXPECT_EQ(waiter.Join(), WAIT_OBJECT_0);
  }
}

TEST(Timers, AmongEvents) {
  const Handle event = NewEvent();
  const Handle timer = NewTimer();
  const HANDLE handles[] = {event, timer};
  Arm(timer, -5 * kUnitsPerMs);
  EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
  SetEvent(event);
  Arm(timer, 0);
  EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
}

TEST(Timers, CancellingAndBadArguments) {
  const Handle timer = NewTimer(), event = NewEvent();
  Arm(timer, -20 * kUnitsPerMs, 20);
  EXPECT_CALL(CancelWaitableTimer(timer), TRUE, kUntouched);
  EXPECT_EQ(WaitForSingleObject(timer, 50), WAIT_TIMEOUT);
  EXPECT_CALL(CancelWaitableTimer(nullptr), FALSE, ERROR_INVALID_HANDLE);
  EXPECT_CALL(Arm(nullptr, 0), FALSE, ERROR_INVALID_HANDLE);
  EXPECT_CALL(Arm(event, 0), FALSE, ERROR_INVALID_HANDLE);
  EXPECT_CALL(Arm(timer, 0, -1), ByTarget(FALSE, TRUE), ByTarget<DWORD>(ERROR_INVALID_PARAMETER, kUntouched));
}

}  // namespace
