// Mutexes of several threads and processes.
#include <gtest/gtest.h>

#include "test/platform/objects/handles.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

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
