#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"
#include "test/support/own_mounts.h"

using namespace qel::test;

namespace {

constexpr int kNames = 3;
constexpr int kProcesses = 4;
constexpr int kKills = 300;

std::wstring NameOf(const std::string& stem, int number) { return Widen(stem) + std::to_wstring(number); }

// Whether nobody else writes while this process has the mutex.
bool IsAlone(const std::string& path) {
  const std::string mine = std::to_string(GetCurrentProcessId());
  std::ofstream(path, std::ios::trunc) << mine;
  std::string read;
  std::ifstream(path) >> read;
  return read == mine;
}

// What everybody sees of who has which mutex open: an odd number while it is open.
struct Board {
  std::atomic<unsigned> open[kNames][kProcesses];
  std::atomic<bool> killing[kProcesses];
};

class BoardView {
 public:
  explicit BoardView(const std::string& stem)
      : section_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Board),
                                    NameOf(stem, kNames).c_str())),
        view_(section_, FILE_MAP_WRITE, 0, 0) {}
  Board* operator->() const { return reinterpret_cast<Board*>(view_.base()); }

 private:
  const Handle section_;
  const View view_;
};

// What is said to be new must not be open anywhere: looks for a process that has it open before and after `make`.
template <class Make>
bool IsNewOnlyWhenClosed(const Board& board, int number, const Make& make) {
  unsigned before[kProcesses];
  for (int i = 0; i < kProcesses; ++i) before[i] = board.open[number][i];
  if (!make()) return true;
  for (int i = 0; i < kProcesses; ++i)
    if (before[i] % 2 != 0 && board.open[number][i] == before[i] && !board.killing[i]) return false;
  return true;
}

// Objects of all kinds come and go under a few names, until the process is killed.
CHILD_ROLE(UseObjects) {
  const std::string stem = arguments[0], folder = arguments[1];
  const int self = std::stoi(arguments[2]);
  const BoardView board(stem);
  std::minstd_rand random(static_cast<unsigned>(GetCurrentProcessId()));
  Say("ready");
  for (;;) {
    const int number = static_cast<int>(random() % kNames);
    const std::wstring name = NameOf(stem, number);
    const Handle event = CreateEventW(nullptr, TRUE, FALSE, (name + L"-event").c_str());
    if (event && random() % 2) SetEvent(event);
    // A thread that ends as the owner of a mutex that has no handle any more.
    if (random() % 8 == 0) Worker([&]() -> DWORD { return Handle(CreateMutexW(nullptr, TRUE, name.c_str())) ? 0 : 1; });
    Handle mutex;
    const bool alone = IsNewOnlyWhenClosed(*board.operator->(), number, [&] {
      mutex = CreateMutexW(nullptr, random() % 4 == 0, name.c_str());
      return GetLastError() == ERROR_SUCCESS;
    });
    if (!mutex || !event) return 10;
    if (!alone) return 13;
    ++board->open[number][self];
    const DWORD result = WaitForSingleObject(mutex, kLongMs);
    if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED) return 11;
    if (!IsAlone(folder + "/" + std::to_string(number))) return 12;
    while (ReleaseMutex(mutex)) {
    }
    ++board->open[number][self];
  }
}

TEST(Kill, NoMutexIsStuckAndNothingIsLeft) {
  static const bool own = UsePrivateSharedMemory();
  const ScratchFolder scratch;
  const std::string stem = "kill-" + std::to_string(GetCurrentProcessId()) + "-";
  std::minstd_rand random(1);
  const BoardView board(stem);
  const auto start = [&](size_t place) {
    auto child =
        std::make_unique<ChildProcess>("UseObjects", std::vector{stem, scratch.Narrow(), std::to_string(place)});
    EXPECT_EQ(child->WaitForLine(), "ready");
    return child;
  };
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < kProcesses; ++i) children.push_back(start(children.size()));
  for (int i = 0; i < kKills; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
    const size_t place = random() % children.size();
    auto& child = children[place];
    ASSERT_TRUE(child->Running()) << "ended by itself with " << child->Wait();
    board->killing[place] = true;
    child->Kill();
    child->Wait();
    for (auto& open : board->open)
      if (open[place] % 2 != 0) ++open[place];
    board->killing[place] = false;
    child = start(place);
  }
  for (auto& child : children) EXPECT_TRUE(child->Running()) << "ended by itself with " << child->Wait();
  children.clear();
  for (int i = 0; i < kNames; ++i) {
    const Handle mutex = CreateMutexW(nullptr, FALSE, NameOf(stem, i).c_str());
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(WaitForSingleObject(mutex, kLongMs), WAIT_OBJECT_0);
    ReleaseMutex(mutex);
  }
  ChildProcess last("EndInOrder");
  EXPECT_EQ(last.Wait(), 0);
  if (own) {
    EXPECT_LE(CountSharedMemory(), 2u + kNames) << "more than this process's own folder, board and mutexes";
  }
}

CHILD_ROLE(EndInOrder) { return CreateMutexW(nullptr, FALSE, UniqueName().c_str()) ? 0 : 1; }

}  // namespace
