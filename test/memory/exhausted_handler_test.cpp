// MemAllocHandler as the handler of a heap that has nothing left, not even for the line that it writes.
#include <new>

#include "qelibaselib/memory/guarded_allocation.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr std::size_t kAsked = 4321;
int g_calls, g_answer;

// As a host installs it. What MemAllocHandler itself allocates comes here once more; endless recursion ends the
// process.
void AnswerNewHandler() {
  constexpr int kFarTooMany = 1000;
  if (++g_calls > kFarTooMany) std::_Exit(100);
  g_answer = MemAllocHandler(kAsked);
  GiveBack();
}

void AllocateWithNothingLeft() {
  TakeAll(Resource::kMemory);
  std::set_new_handler(&AnswerNewHandler);
  void* const block = operator new(1 << 16);
  std::set_new_handler(nullptr);
  operator delete(block);
}

// arguments: whether the process, and the thread, have called the library before.
CHILD_ROLE(HandleWithNothingLeft) {
  LogFolder();
  FakeClock clock;
  if (arguments[0] == "used") MemAllocHandler(1);
  if (arguments[1] == "main") {
    AllocateWithNothingLeft();
  } else {
    std::thread([] { AllocateWithNothingLeft(); }).join();
  }
  return g_answer == 1 ? 0 : 1;
}

TEST(MemAllocHandlerWithoutHeap, AnswersAndWritesOrLosesItsLine) {
  SKIP_UNDER_ASAN();
  for (const char* const process : {"used", "new"}) {
    for (const char* const thread : {"main", "other"}) {
      // Wine ends the whole process when a thread other than the first one meets an address space without room.
      if (sizeof(wchar_t) == 2 && std::string(thread) == "other") continue;
      SCOPED_TRACE(testing::Message() << process << " process, " << thread << " thread");
      TakeLines(channel::kMemoryAllocation);
      EXPECT_EQ(ChildProcess("HandleWithNothingLeft", {process, thread}).Wait(), 0);
      for (const LogLine& line : TakeLines(channel::kMemoryAllocation)) {
        EXPECT_TRUE(line.message.starts_with("allocSize=4321, ") || line.message.starts_with("allocSize=1, "));
      }
    }
  }
}

}  // namespace
}  // namespace qel::test
