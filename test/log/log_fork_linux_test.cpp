// Forks of a host whose threads log.
#include <sys/wait.h>
#include <unistd.h>

#include "test/log/log_case.h"

namespace {

using namespace qel::test;

TEST_F(LogCase, AForkedChildWritesItsLine) {
  SKIP_UNDER_ASAN();
  constexpr int kThreads = 3, kForks = 60;
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      for (; !stop && written < 3000; ++written) Write("parent");
    });
  for (int i = 0; i < kForks; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      Write("child");
      const HANDLE file = CreateFileX(1, "s", folder.Wide(std::to_string(i)).c_str(), GENERIC_WRITE, 0, nullptr,
                                      CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr, 0, 0);
      _exit(file != INVALID_HANDLE_VALUE && CloseHandle(file) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  int parents = 0, children = 0;
  for (const LogLine& line : ReadLines(folder.Path() / "log.txt")) {
    EXPECT_TRUE(line.message == "child" || line.message == "parent") << line.message;
    ++(line.message == "child" ? children : parents);
  }
  EXPECT_EQ(children, kForks);
  EXPECT_EQ(parents, written);
}

}  // namespace
