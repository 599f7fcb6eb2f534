// The pixel loop with more threads than there is room for. The OpenMP run-time would end the process.
#include <sys/resource.h>

#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr long kThreads = 300;  // their stacks take 2.4 GB

CHILD_ROLE(MeasureWithLittleRoom) {
  LogFolder();
  const rlimit limit{rlim_t{1} << 30, rlim_t{1} << 30};
  setrlimit(RLIMIT_AS, &limit);
  CQelSystemBenchmark benchmark;
  benchmark.m_iterations = 1;
  benchmark.m_maximumThreads = kThreads;
  benchmark.CheckOmpPerformanceRate();
  const bool isReduced = benchmark.m_threadRates[2] > 0 && benchmark.m_threadRates[kThreads] == 0;
  benchmark.LogOutResult("", L"", 0);
  return isReduced ? 0 : 1;
}

TEST(BenchmarkThreads, AreRefusedWhenTheSystemHasNoRoomForThem) {
  SKIP_UNDER_ASAN();
  TakeMessages(channel::kAssert);
  EXPECT_EQ(ChildProcess("MeasureWithLittleRoom").Wait(), 0);
  const auto messages = TakeMessages(channel::kAssert);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_NE(messages[0].find("/300, lec="), std::string::npos) << messages[0];
}

}  // namespace
}  // namespace qel::test
