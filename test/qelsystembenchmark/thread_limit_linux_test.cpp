// The pixel loop with more threads than there is room for. The OpenMP run-time would end the process.
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "test/support/library.h"
#include "test/support/replace_call.h"

namespace qel::test {
namespace {

constexpr long kThreads = 300;  // their stacks take 2.4 GB

// Keeps threads whose end was signalled from giving their stacks back, until the next two are started.
class LingeringEnds {
 public:
  static void LetGo() {
    g_mayGo = true;
    for (const DWORD thread : g_threads)
      while (syscall(SYS_tgkill, getpid(), thread, 0) == 0) usleep(100);
    g_threads.clear();
    g_mayGo = false;
  }
  static HANDLE Start(LPSECURITY_ATTRIBUTES security, SIZE_T bytes, LPTHREAD_START_ROUTINE routine, LPVOID argument,
                      DWORD flags, LPDWORD id) {
    auto* const started = new Started{routine, argument};
    const HANDLE thread = CreateThread(security, bytes, &Run, started, flags, id);
    if (thread) g_threads.push_back(*id);
    return thread;
  }

 private:
  struct Started {
    LPTHREAD_START_ROUTINE routine;
    LPVOID argument;
  };
  static DWORD WINAPI Run(LPVOID memory) {
    const Started started = *static_cast<Started*>(memory);
    delete static_cast<Started*>(memory);
    static const pthread_key_t key = [] {
      pthread_key_t made;
      pthread_key_create(&made, [](void*) {
        while (!g_mayGo) usleep(100);
      });
      return made;
    }();
    pthread_setspecific(key, &g_mayGo);
    return started.routine(started.argument);
  }
  static inline std::atomic<bool> g_mayGo{false};
  static inline std::vector<DWORD> g_threads;
};

CHILD_ROLE(MeasureWithLittleRoom) {
  LogFolder();
  auto start = STAND_IN(CreateThread, [](int nth, auto... arguments) {
    if (nth % 2 == 1) LingeringEnds::LetGo();
    return LingeringEnds::Start(arguments...);
  });
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
