#include "qelibaselib/watchthreadstat/lockmtx.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

CHILD_ROLE(HoldLock) {
  HANDLE mutex = CreateMutexW(nullptr, FALSE, Widen(arguments[0]).c_str());
  const CLockMtx lock(mutex, 60000, 1, "child.cpp");
  Say(lock.LockCount() == 1 ? "held" : "not held");
  Hear();
  return 0;
}

// Whoever waits when the owner is killed gets the mutex and knows nothing of it.
TEST(Lock, OutlivesKilledOwners) {
  const std::string name = Narrow(UniqueName());
  HANDLE mutex = CreateMutexW(nullptr, FALSE, Widen(name).c_str());
  ASSERT_NE(mutex, nullptr);
  for (int round = 0; round < 200; ++round) {
    ChildProcess owner("HoldLock", {name});
    ASSERT_EQ(owner.WaitForLine(), "held") << round;
    ASSERT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT) << round;
    owner.Kill();
    ASSERT_EQ(CLockMtx(mutex, 30000, 2, "parent.cpp").LockCount(), 1u) << round;
  }
  CloseHandle(mutex);
  EXPECT_TRUE(TakeLines(channel::kLock).empty());
}

}  // namespace
}  // namespace qel::test
