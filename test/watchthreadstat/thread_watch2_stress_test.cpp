#include "test/support/library.h"

namespace qel::test {
namespace {

// Freed as soon as End has returned, so that a sanitizer sees a late callback as well.
struct Work {
  static constexpr unsigned kAlive = 0x600D600D;
  unsigned state = kAlive;
  DWORD threadId = GetCurrentThreadId();
};
std::atomic<int> g_calls, g_late, g_mixedUp;

void __stdcall Check(unsigned long, void*, unsigned long threadId, void* argument) {
  const auto& work = *static_cast<Work*>(argument);
  ++g_calls;
  if (work.state != Work::kAlive) ++g_late;
  if (work.threadId != threadId) ++g_mixedUp;
}

TEST(ThreadWatch2, NoCallbackRunsAfterEnd) {
  constexpr int kThreads = 8, kRounds = 1000;
  g_calls = g_late = g_mixedUp = 0;
  const auto realSet = &SetWaitableTimer;  // a thousand ticks a second instead of one
  auto fast = STAND_IN(SetWaitableTimer, [=](int, HANDLE timer, const LARGE_INTEGER* due, LONG, auto... rest) {
    return realSet(timer, due, 1, rest...);
  });
  CWatchThreadStat2 watch;
  OnThreads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      auto work = std::make_unique<Work>();
      void* registration = watch.Start(1, 1, &Check, work.get());
      if (round % 16 == 0) Sleep(2);
      ASSERT_TRUE(watch.End(registration));
      work->state = 0;
    }
  });
  EXPECT_GT(g_calls, 0);
  EXPECT_EQ(g_late, 0);
  EXPECT_EQ(g_mixedUp, 0);
}

}  // namespace
}  // namespace qel::test
