#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

HANDLE ClosedHandle() {
  HANDLE handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  CloseHandle(handle);
  return handle;
}
HANDLE Garbage() { return reinterpret_cast<HANDLE>(0x1234560); }

// Pseudo handles mean the process and the thread, and outlive being closed.
TEST(WaitForSingleObject, LeavesTheLastErrorAlone) {
  const Handle event = NewEvent(true, true);
  EXPECT_CALL(WaitForSingleObject(event, 0), WAIT_OBJECT_0, kUntouched);
  ResetEvent(event);
  EXPECT_EQ(GetCurrentProcess(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(GetCurrentThread()), 0xFFFFFFFEu);
  EXPECT_TRUE(CloseHandle(GetCurrentProcess()));
  EXPECT_TRUE(CloseHandle(GetCurrentThread()));
  for (HANDLE handle : {HANDLE(event), INVALID_HANDLE_VALUE, GetCurrentThread()})
    for (const DWORD limit : {0, 20}) EXPECT_CALL(WaitForSingleObject(handle, limit), WAIT_TIMEOUT, kUntouched);
}

TEST(WaitForSingleObject, BadHandlesAndOtherKinds) {
  const Handle event = NewEvent(), mutex = CreateMutexW(nullptr, FALSE, nullptr);
  for (HANDLE handle : {HANDLE(nullptr), Garbage(), ClosedHandle()}) {
    EXPECT_CALL(WaitForSingleObject(handle, 0), WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_CALL(ResetEvent(handle), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_CALL(CloseHandle(handle), FALSE, ERROR_INVALID_HANDLE);
  }
  for (HANDLE handle : {HANDLE(nullptr), Garbage(), ClosedHandle(), HANDLE(mutex)}) {
    EXPECT_CALL(SetEvent(handle), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_CALL(ReleaseSemaphore(handle, 1, nullptr), FALSE, ERROR_INVALID_HANDLE);
  }
  for (HANDLE handle : {HANDLE(nullptr), Garbage(), ClosedHandle(), HANDLE(event)}) {
    EXPECT_CALL(ReleaseMutex(handle), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_CALL(ReleaseSemaphore(handle, 1, nullptr), FALSE, ERROR_INVALID_HANDLE);
  }
}

TEST(Events, AutoResetIsConsumedManualStays) {
  const Handle single = NewEvent(false, true);
  EXPECT_EQ(WaitForSingleObject(single, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(single, 0), WAIT_TIMEOUT);
  SetEvent(single);
  SetEvent(single);
  EXPECT_EQ(WaitForSingleObject(single, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(single, 0), WAIT_TIMEOUT);
  const Handle manual = NewEvent(true);
  SetEvent(manual);
  EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
}

// Every signal is taken once, whoever waits alone or for several.
TEST(Events, NoSignalIsLostAmongManyWaiters) {
  constexpr int kRounds = 2000;
  const Handle turn = NewEvent();
  const Handle taken = NewEvent();
  const Handle stop = NewEvent(true);
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

TEST(Semaphores, CountDownAndUp) {
  const Handle semaphore = CreateSemaphoreW(nullptr, 2, 3, nullptr);
  LONG previous = -1;
  EXPECT_CALL(ReleaseSemaphore(semaphore, 2, &previous), FALSE, ERROR_TOO_MANY_POSTS);
  EXPECT_EQ(previous, -1);
  EXPECT_CALL(ReleaseSemaphore(semaphore, 1, &previous), TRUE, kUntouched);
  EXPECT_EQ(previous, 2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
}

TEST(Semaphores, CountsThatAreNone) {
  const Handle semaphore = CreateSemaphoreW(nullptr, 0, 1, nullptr);
  EXPECT_CALL(ReleaseSemaphore(semaphore, 0, nullptr), ByTarget(FALSE, TRUE),
              ByTarget<DWORD>(ERROR_INVALID_PARAMETER, kUntouched));
  EXPECT_CALL(ReleaseSemaphore(semaphore, -1, nullptr), FALSE,
              ByTarget<DWORD>(ERROR_INVALID_PARAMETER, ERROR_TOO_MANY_POSTS));
  EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
  const std::pair<LONG, LONG> bad[] = {{-1, 1}, {2, 1}, {0, 0}};
  for (const auto& [initial, maximum] : bad)
    EXPECT_CALL(CreateSemaphoreW(nullptr, initial, maximum, nullptr), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_MADE(CreateSemaphoreW(nullptr, 0x7FFFFFFF, 0x7FFFFFFF, nullptr), 0);
}

TEST(WaitForMultipleObjects, AnyTakesTheFirstAndOnlyIt) {
  const Handle first = NewEvent();
  const Handle second = NewEvent(false, true);
  const Handle third = CreateSemaphoreW(nullptr, 1, 1, nullptr);
  const HANDLE handles[] = {first, second, third};
  EXPECT_CALL(WaitForMultipleObjects(3, handles, FALSE, kLongMs), WAIT_OBJECT_0 + 1, kUntouched);
  EXPECT_EQ(WaitForMultipleObjects(3, handles, FALSE, kLongMs), WAIT_OBJECT_0 + 2);
  EXPECT_CALL(WaitForMultipleObjects(3, handles, FALSE, 0), WAIT_TIMEOUT, kUntouched);
  EXPECT_CALL(WaitForMultipleObjects(3, handles, FALSE, 20), WAIT_TIMEOUT, kUntouched);
}

TEST(WaitForMultipleObjects, AllTakesAllOrNone) {
  const Handle first = NewEvent(false, true);
  const Handle second = NewEvent();
  const Handle mutex = CreateMutexW(nullptr, FALSE, nullptr);
  const HANDLE handles[] = {first, mutex, second};
  EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, 0), WAIT_TIMEOUT);
  EXPECT_FALSE(ReleaseMutex(mutex));
  EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
  SetEvent(first);
  Worker setter([&]() -> DWORD { return SetEvent(second); });
  EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, kLongMs), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);
}

TEST(WaitForMultipleObjects, BadArguments) {
  const Handle event = NewEvent(true, true);
  std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
  EXPECT_CALL(WaitForMultipleObjects(0, handles.data(), FALSE, 0), WAIT_FAILED, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(WaitForMultipleObjects(65, handles.data(), FALSE, 0), WAIT_FAILED, ERROR_INVALID_PARAMETER);
  EXPECT_EQ(WaitForMultipleObjects(64, handles.data(), FALSE, 0), WAIT_OBJECT_0);
  handles[1] = nullptr;
  EXPECT_CALL(WaitForMultipleObjects(2, handles.data(), FALSE, 0), WAIT_FAILED, ERROR_INVALID_HANDLE);
  handles[1] = event;
  if (!OnWine()) EXPECT_CALL(WaitForMultipleObjects(2, handles.data(), TRUE, 0), WAIT_FAILED, ERROR_INVALID_PARAMETER);
  handles[2] = nullptr;  // told before the two that are one
  EXPECT_CALL(WaitForMultipleObjects(3, handles.data(), TRUE, 0), WAIT_FAILED, ERROR_INVALID_HANDLE);
}

// A closed handle stays invalid though its place was given out again.
TEST(CloseHandle, AnOldValueDoesNotReachANewObject) {
  const HANDLE old = ClosedHandle();
  std::vector<Handle> handles;
  for (int i = 0; i < 100; ++i) handles.emplace_back(NewEvent(true, true));
  bool reused = false;
  for (const Handle& handle : handles) reused |= static_cast<HANDLE>(handle) == old;
  if (!reused) EXPECT_CALL(CloseHandle(old), FALSE, ERROR_INVALID_HANDLE);
}

// More handles than the layer has places, one after the other.
TEST(CloseHandle, LeavesItsPlaceToOthers) {
  for (int i = 0; i < (kLinux ? 0x11000 : 100); ++i)
    ASSERT_TRUE(CloseHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr))) << i;
}

TEST(DuplicateHandle, IsAnotherHandleOfTheSameObject) {
  const HANDLE process = GetCurrentProcess();
  HANDLE copy = nullptr;
  for (const DWORD options : {DUPLICATE_SAME_ACCESS, DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE}) {
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(DuplicateHandle(process, event, process, &copy, 0, FALSE, options));
    const Handle owner = copy;
    if (options == DUPLICATE_SAME_ACCESS) {
      SetEvent(event);
      EXPECT_TRUE(CloseHandle(event));
    } else if (event != copy) {
      EXPECT_CALL(CloseHandle(event), FALSE, ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(WaitForSingleObject(copy, 0), options == DUPLICATE_SAME_ACCESS ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
  }
  EXPECT_CALL(DuplicateHandle(process, Garbage(), process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS), FALSE,
              ERROR_INVALID_HANDLE);
  EXPECT_EQ(copy, nullptr);
}

}  // namespace
