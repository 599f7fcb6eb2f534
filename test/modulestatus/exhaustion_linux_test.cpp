// A thread that calls the library for the first time when there is no memory. (On Windows the thread library ends a
// process whose thread throws its first exception then.)
#include "test/support/bad_pointer.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

enum Failure { kNoCount = 1, kBlock = 2, kSemaphore = 4 };

int CallWithoutMemory() {
  int failures = VemoGetCPUCount() > 0 ? 0 : kNoCount;
  if (_MemAlloc(__FILE__, __LINE__, 1 << 20, 0)) failures |= kBlock;
  if (CreateSemaphoreX(__LINE__, __FILE__, nullptr, 0, 1, nullptr)) failures |= kSemaphore;
  if (VirtualAlloc(nullptr, 1 << 16, MEM_RESERVE, PAGE_READWRITE)) failures |= kBlock;
  return failures;
}

CHILD_ROLE(CallFirstWithoutMemory) {
  LogFolder();
  const auto faulting = FAULT_IN(CreateSemaphoreW);
  std::atomic<bool> taken = false, called = false;
  int failures = -1;
  std::thread thread([&] {
    while (!taken) std::this_thread::yield();
    failures = CallWithoutMemory();
    called = true;
  });
  TakeAll(Resource::kMemory);
  taken = true;
  while (!called) std::this_thread::yield();
  GiveBack();
  thread.join();
  VemoLogOutMisc("after", 1, "source.cpp");
  return failures;
}

TEST(NothingLeft, AThreadsFirstCallEndsInItsFailureValue) {
  SKIP_UNDER_ASAN();
  TakeLines(channel::kMisc);
  ChildProcess child("CallFirstWithoutMemory");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(TakeMessages(channel::kMisc), Messages{"after"});
}

}  // namespace
}  // namespace qel::test
