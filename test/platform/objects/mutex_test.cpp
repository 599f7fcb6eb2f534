#include <gtest/gtest.h>

#include "test/platform/objects/handles.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

DWORD TakenByAnotherThread(HANDLE mutex) {
  return Worker([mutex] { return WaitForSingleObject(mutex, 0); }).Join();
}

TEST(Mutexes, ASecondThreadWaitsUntilAllIsReleased) {
  for (const bool initial : {true, false}) {
    const Handle mutex = CreateMutexW(nullptr, initial, nullptr);
    for (int i = initial; i < 3; ++i) EXPECT_CALL(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0, kUntouched);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(TakenByAnotherThread(mutex), WAIT_TIMEOUT);
      Worker other([&]() -> DWORD { return ReleaseMutex(mutex) ? 0 : GetLastError(); });
      EXPECT_EQ(other.Join(), ERROR_NOT_OWNER);
      EXPECT_CALL(ReleaseMutex(mutex), TRUE, kUntouched);
    }
    EXPECT_CALL(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER);
    EXPECT_EQ(TakenByAnotherThread(mutex), WAIT_OBJECT_0);
  }
}

// Two handles of a name are one mutex: nesting counts over both.
TEST(Mutexes, HandlesOfANameAreOneMutex) {
  const std::wstring name = UniqueName();
  const Handle first = CreateMutexW(nullptr, TRUE, name.c_str());
  const Handle second = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str());
  EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(first));
  EXPECT_TRUE(ReleaseMutex(first));
  EXPECT_FALSE(ReleaseMutex(second));
  const Handle joined = CreateMutexW(nullptr, TRUE, name.c_str());
  EXPECT_CALL(ReleaseMutex(joined), FALSE, ERROR_NOT_OWNER);  // joining as initial owner owns nothing
  EXPECT_EQ(TakenByAnotherThread(first), WAIT_OBJECT_0);
}

// A wait for several hears of the release as a wait for one does.
TEST(Mutexes, AWaiterGetsItFromTheOwner) {
  const Handle mutex = CreateMutexW(nullptr, TRUE, nullptr), never = NewEvent(), waiting = NewEvent();
  const HANDLE handles[] = {never, mutex};
  const std::pair<DWORD, DWORD> waits[] = {{1, kLongMs}, {1, INFINITE}, {2, kLongMs}};
  for (const auto& [count, limit] : waits) {
    Worker waiter([&, count = count, limit = limit] {
      SetEvent(waiting);
      const DWORD result = WaitForMultipleObjects(count, handles + 2 - count, FALSE, limit);
      ReleaseMutex(mutex);
      return result;
    });
    WaitForSingleObject(waiting, kLongMs);
    Sleep(2);
    ReleaseMutex(mutex);
    EXPECT_EQ(waiter.Join(), WAIT_OBJECT_0 + count - 1);
    WaitForSingleObject(mutex, 0);
  }
  ReleaseMutex(mutex);
}

TEST(Mutexes, AreGivenUpByTheEndOfTheirThread) {
  const Handle event = NewEvent();
  for (const std::wstring& name : {std::wstring(), UniqueName()}) {
    const Handle mutex = CreateMutexW(nullptr, FALSE, name.empty() ? nullptr : name.c_str());
    EXPECT_EQ(TakenByAnotherThread(mutex), WAIT_OBJECT_0);
    EXPECT_CALL(WaitForSingleObject(mutex, kLongMs), WAIT_ABANDONED, kUntouched);
    EXPECT_TRUE(ReleaseMutex(mutex));
    const HANDLE handles[] = {event, mutex};
    EXPECT_EQ(TakenByAnotherThread(mutex), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kLongMs), WAIT_ABANDONED_0 + 1);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kLongMs), WAIT_OBJECT_0 + 1) << "abandoned only once";
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
  }
}

// The last handle may be closed by the owner: what others join is still owned, and given up by the thread's end.
TEST(Mutexes, ClosingDoesNotRelease) {
  const std::wstring name = UniqueName();
  const Handle other = CreateMutexW(nullptr, FALSE, name.c_str());
  Worker owner([&]() -> DWORD {
    Handle mutex = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    WaitForSingleObject(mutex, 0);
    mutex.Close();
    return TakenByAnotherThread(other);
  });
  EXPECT_EQ(owner.Join(), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_ABANDONED);
  ReleaseMutex(other);
}

TEST(Mutexes, ClosingTheLastHandleWhileOwning) {
  const std::wstring name = UniqueName();
  Worker owner([&]() -> DWORD {
    Handle mutex = CreateMutexW(nullptr, TRUE, name.c_str());
    const Handle another = CreateMutexW(nullptr, TRUE, nullptr);
    mutex.Close();
    return ReleaseMutex(another);
  });
  EXPECT_EQ(owner.Join(), 1u);
  const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  ReleaseMutex(mutex);
}

// The object is gone with its last handle, owned or not; its owner's thread goes on and ends as if nothing were.
TEST(Mutexes, ANameEndsWithItsLastHandleAlsoWhileOwned) {
  const std::wstring name = UniqueName();
  Worker owner([&]() -> DWORD {
    for (DWORD i = 1; i < 4; ++i) {
      Handle(CreateMutexW(nullptr, TRUE, name.c_str())).Close();
      if (OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str()) || GetLastError() != ERROR_FILE_NOT_FOUND) return i;
      const Handle again = CreateMutexW(nullptr, FALSE, name.c_str());
      if (!again || GetLastError() != ERROR_SUCCESS || ReleaseMutex(again)) return 10 + i;
      if (TakenByAnotherThread(again) != WAIT_OBJECT_0) return 20 + i;
    }
    return 0;
  });
  EXPECT_EQ(owner.Join(), 0u);
  EXPECT_MADE(CreateEventW(nullptr, FALSE, FALSE, name.c_str()), 0);
}

TEST(Mutexes, ExcludeEachOther) {
  constexpr int kThreads = 4, kTurns = 2000;
  const std::wstring name = UniqueName();
  int counter = 0;  // not atomic: the mutex is what keeps it right
  {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < kThreads; ++i)
      workers.push_back(std::make_unique<Worker>([&]() -> DWORD {
        for (int turn = 0; turn < kTurns; ++turn) {
          const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
          if (WaitForSingleObject(mutex, kLongMs) != WAIT_OBJECT_0) return 1;
          ++counter;
          ReleaseMutex(mutex);
        }
        return 0;
      }));
    for (auto& worker : workers) EXPECT_EQ(worker->Join(), 0u);
  }
  EXPECT_EQ(counter, kThreads * kTurns);
}

CHILD_ROLE(OwnMutex) {
  const std::wstring name = Widen(arguments[0]);
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  const bool joined = GetLastError() == ERROR_ALREADY_EXISTS;
  WaitForSingleObject(mutex, INFINITE);
  Say(joined ? "joined" : "made");
  Hear();
  return 0;  // with the mutex still owned
}

TEST(MutexesOfProcesses, AreSharedByNameAndGivenUpByAnEndOfAnyKind) {
  const std::wstring name = UniqueName();
  const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  for (const bool kill : {true, false}) {
    ChildProcess child("OwnMutex", {Narrow(name)});
    ASSERT_EQ(child.WaitForLine(), "joined");
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
    EXPECT_CALL(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER);
    kill ? child.Kill() : child.Tell("end");
    EXPECT_EQ(WaitForSingleObject(mutex, kLongMs), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
  }
}

TEST(MutexesOfProcesses, DieWithTheOnlyProcessThatHasThem) {
  const std::wstring name = UniqueName();
  {
    ChildProcess child("OwnMutex", {Narrow(name)});
    ASSERT_EQ(child.WaitForLine(), "made");
    EXPECT_CALL(CreateEventW(nullptr, FALSE, FALSE, name.c_str()), nullptr, ERROR_INVALID_HANDLE);
    child.Kill();
    child.Wait();
  }
  EXPECT_CALL(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  ReleaseMutex(mutex);
}

CHILD_ROLE(HoldMutex) {
  const HANDLE mutex = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Widen(arguments[0]).c_str());
  Say(mutex ? "opened" : "none");
  Hear();
  CloseHandle(mutex);
  const HANDLE again = CreateMutexW(nullptr, FALSE, Widen(arguments[0]).c_str());
  Say(again && GetLastError() == ERROR_SUCCESS ? "new" : "old");
  Hear();
  return 0;
}

// While another process has it open the object stays, and its owner finds it again; afterwards it is made anew, though
// the thread still is the owner of the former one.
TEST(MutexesOfProcesses, OutliveTheOwnersHandleOnlyInOtherProcesses) {
  const std::wstring name = UniqueName();
  Handle mutex = CreateMutexW(nullptr, TRUE, name.c_str());
  ChildProcess child("HoldMutex", {Narrow(name)});
  ASSERT_EQ(child.WaitForLine(), "opened");
  mutex.Close();
  mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_CALL(ReleaseMutex(mutex), TRUE, kUntouched);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  mutex.Close();
  child.Tell("close");
  EXPECT_EQ(child.WaitForLine(), "new");
  mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_CALL(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER);
}

CHILD_ROLE(SignalEvent) {
  const std::wstring name = Widen(arguments[0]);
  const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str());
  return event && SetEvent(event) ? 0 : 1;
}

TEST(EventsOfProcesses, WakeAWaitForOneAndForSeveral) {
  const std::wstring name = UniqueName();
  const Handle event = CreateEventW(nullptr, FALSE, FALSE, name.c_str());
  const Handle never = NewEvent();
  const HANDLE handles[] = {never, event};
  for (const DWORD count : {1, 2}) {
    ChildProcess child("SignalEvent", {Narrow(name)});
    EXPECT_EQ(WaitForMultipleObjects(count, handles + 2 - count, FALSE, kLongMs), count - 1);
    EXPECT_EQ(child.Wait(), 0);
  }
}

}  // namespace
