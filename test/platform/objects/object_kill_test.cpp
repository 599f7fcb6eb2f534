#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <thread>

#include "test/platform/objects/handles.h"
#include "test/platform/objects/shared_memory.h"
#include "test/support/child_process.h"
#include "test/support/scratch_folder.h"

using namespace qel::test;

namespace {

constexpr DWORD kStuckMs = 60'000;
constexpr int kNames = 3;
constexpr int kProcesses = 4;

std::wstring NameOf(const std::string& stem, int number) {
  return std::wstring(stem.begin(), stem.end()) + std::to_wstring(number);
}

// Whether nobody else writes while this process has the mutex.
bool IsAlone(const std::string& path) {
  const std::string mine = std::to_string(GetCurrentProcessId());
  std::ofstream(path, std::ios::trunc) << mine;
  std::string read;
  std::ifstream(path) >> read;
  return read == mine;
}

// Objects of all kinds come and go under a few names, until the process is killed.
CHILD_ROLE(UseObjects) {
  const std::string stem = arguments[0], folder = arguments[1];
  std::minstd_rand random(static_cast<unsigned>(GetCurrentProcessId()));
  Say("ready");
  for (;;) {
    const int number = static_cast<int>(random() % kNames);
    const std::wstring name = NameOf(stem, number);
    const Handle event = CreateEventW(nullptr, TRUE, FALSE, (name + L"-event").c_str());
    if (event && random() % 2) SetEvent(event);
    const Handle mutex = CreateMutexW(nullptr, random() % 4 == 0, name.c_str());
    if (!mutex || !event) return 10;
    const DWORD result = WaitForSingleObject(mutex, kStuckMs);
    if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED) return 11;
    if (!IsAlone(folder + "/" + std::to_string(number))) return 12;
    while (ReleaseMutex(mutex)) {
    }
  }
}

TEST(Kill, NoMutexIsStuckAndNothingIsLeft) {
  const bool own = UsePrivateSharedMemory();
  const ScratchFolder scratch;
  const std::string stem = "kill-" + std::to_string(GetCurrentProcessId()) + "-";
  std::minstd_rand random(1);
  const auto start = [&] {
    auto child = std::make_unique<ChildProcess>("UseObjects", std::vector{stem, scratch.Narrow()});
    EXPECT_EQ(child->WaitForLine(), "ready");
    return child;
  };
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < kProcesses; ++i) children.push_back(start());
  for (int i = 0; i < kAffordableKills; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
    auto& child = children[random() % children.size()];
    ASSERT_TRUE(child->Running()) << "ended by itself with " << child->Wait();
    child->Kill();
    child->Wait();
    child = start();
  }
  for (auto& child : children) EXPECT_TRUE(child->Running()) << "ended by itself with " << child->Wait();
  children.clear();
  for (int i = 0; i < kNames; ++i) {
    const auto [mutex, error] =
        WithLastError(kUntouched, [&] { return Handle(CreateMutexW(nullptr, FALSE, NameOf(stem, i).c_str())); });
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(WaitForSingleObject(mutex, kStuckMs), WAIT_OBJECT_0);
    ReleaseMutex(mutex);
  }
  ChildProcess last("EndInOrder");
  EXPECT_EQ(last.Wait(), 0);
  if (own) {
    EXPECT_LE(ListSharedMemory().size(), 1u + kNames) << "more than this process's own folder and mutexes";
  }
}

CHILD_ROLE(EndInOrder) { return CreateMutexW(nullptr, FALSE, UniqueName().c_str()) ? 0 : 1; }

}  // namespace
