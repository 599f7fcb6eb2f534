#include "qelibaselib/memory/guarded_allocation.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "test/memory/replace_allocator.h"
#include "test/support/child_process.h"
#include "test/support/fake_clock.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"

namespace qel::test {
namespace {

constexpr int kLine = 815;
constexpr char kSource[] = "host.cpp";
constexpr DWORD kTooMuch = 0xF0000000;  // more than a process has

void* Allocate(DWORD size, DWORD timeoutMs = 0) { return _MemAlloc(kSource, kLine, size, timeoutMs); }
void Free(void* block) { _MemFree(kSource, kLine, block); }
void* AllocatePages(DWORD size, DWORD timeoutMs = 0) { return _VMemAlloc(kSource, kLine, size, timeoutMs); }
BOOL FreePages(void* base) { return _VMemFree(kSource, kLine, base); }

// The sanitizer ends the process where an operator new fails.
#ifdef QEL_SANITIZE
#define SKIP_WITHOUT_FAILING_HEAP() GTEST_SKIP() << "the heap never fails here"
#else
#define SKIP_WITHOUT_FAILING_HEAP() static_cast<void>(0)
#endif

// What one failed attempt has written.
struct Failure {
  unsigned long size = 0, load = 0, count = 0;
  unsigned long long physical = 0, virtualMemory = 0;
  unsigned long largest = 0, sum = 0;
};

Failure ParseFailure(const std::string& message) {
  static const std::regex form(
      "allocSize=(\\d+), MemoryLoad=(\\d+), AvailPhys=(\\d+), AvailVirtual=(\\d+), MaxFreeSize=(\\d+), "
      "FreeMemSize=(\\d+), errCount1=(\\d+)");
  std::smatch fields;
  if (!std::regex_match(message, fields, form)) {
    ADD_FAILURE() << message;
    return {};
  }
  auto number = [&](int field) { return std::stoull(fields[field]); };
  Failure failure;
  failure.size = number(1);
  failure.load = number(2);
  failure.physical = number(3);
  failure.virtualMemory = number(4);
  failure.largest = number(5);
  failure.sum = number(6);
  failure.count = number(7);
  return failure;
}

class GuardedAllocation : public testing::Test {
 protected:
  GuardedAllocation() { TakeLines(channel::kMemoryAllocation); }

  std::vector<Failure> TakeFailures() {
    std::vector<Failure> failures;
    for (const auto& line : TakeLines(channel::kMemoryAllocation)) {
      EXPECT_EQ(line.sourceFile, kSource);
      EXPECT_EQ(line.line, kLine);
      failures.push_back(ParseFailure(line.message));
    }
    return failures;
  }
};

TEST_F(GuardedAllocation, AsksForSizeClasses) {
  const DWORD asked[] = {0, 1, 7, 8, 55, 56, 247, 248, 1015, 1016, 4088, 4089, 5000, 0xFFFFFFF8, 0xFFFFFFFF};
  const std::size_t granted[] = {16, 16, 16, 64, 64, 256, 256, 1024, 1024, 4096, 4096, 8192, 8192, 16, 16};
  ReplaceAllocator allocator;
  for (const DWORD size : asked) {
    char* block = static_cast<char*>(Allocate(size));
    ASSERT_NE(block, nullptr) << size;
    std::memset(block, 0xCC, allocator.sizes.back());
    Free(block);
  }
  EXPECT_EQ(allocator.sizes, std::vector<std::size_t>(std::begin(granted), std::end(granted)));
  EXPECT_EQ(allocator.freed, static_cast<int>(std::size(granted)));
  EXPECT_EQ(TakeFailures().size(), 0u);
}

TEST_F(GuardedAllocation, PagesAreFreshCommittedAndOfTheSameClasses) {
  std::vector<SIZE_T> sizes;
  {
    auto allocate = STAND_IN(VirtualAlloc, [&](int, LPVOID address, SIZE_T size, DWORD type, DWORD protection) {
      sizes.push_back(size);
      EXPECT_EQ(type, MEM_COMMIT | MEM_RESERVE);
      EXPECT_EQ(protection, static_cast<DWORD>(PAGE_READWRITE));
      return VirtualAlloc(address, size, type, protection);
    });
    for (const DWORD size : {0ul, 8ul, 1016ul, 5000ul}) EXPECT_TRUE(FreePages(AllocatePages(size))) << size;
  }
  EXPECT_EQ(sizes, (std::vector<SIZE_T>{16, 64, 4096, 8192}));
  auto* pages = static_cast<char*>(AllocatePages(100000));
  ASSERT_NE(pages, nullptr);
  EXPECT_EQ(std::string(pages, 100000), std::string(100000, '\0'));
  std::memset(pages, 1, 100000);
  EXPECT_FALSE(FreePages(pages + 0x10000));
  EXPECT_TRUE(FreePages(pages));
  EXPECT_FALSE(FreePages(nullptr));
}

TEST_F(GuardedAllocation, FailureIsLoggedThenWaitedForThenTheTimeoutCounts) {
  SKIP_WITHOUT_FAILING_HEAP();
  FakeClock clock;  // stands at a whole second
  EXPECT_EQ(Allocate(kTooMuch, 0), nullptr);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>{100}) << "one attempt, one wait";
  const auto first = TakeFailures();
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].size, 0xF0001000u);
  EXPECT_LE(first[0].load, 100u);
  EXPECT_GT(first[0].virtualMemory, 0u);
  EXPECT_LE(first[0].largest, first[0].sum);
  EXPECT_LT(first[0].sum, 4096u) << "whole MiB";

  // Waits are the clock's milliseconds within the second, at least 100; only more than the time-out ends the attempts.
  EXPECT_EQ(AllocatePages(kTooMuch, 100), nullptr);
  EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{100, 100, 200}));
  const auto pages = TakeFailures();
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(pages[0].count, first[0].count + 1) << "one count for both allocators";
  EXPECT_EQ(pages[1].count, first[0].count + 2);

  EXPECT_EQ(Allocate(kTooMuch, 2000), nullptr);
  EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{100, 100, 200, 400, 800, 600, 200, 400}));
}

TEST_F(GuardedAllocation, TimeoutSurvivesTheWrapOfTheClock) {
  SKIP_WITHOUT_FAILING_HEAP();
  FakeClock clock;
  clock.now = 0xFFFFFFF0;
  EXPECT_EQ(Allocate(kTooMuch, 400), nullptr);
  EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{280, 264}));
}

TEST_F(GuardedAllocation, GoesOnUntilTheBlockIsThere) {
  FakeClock clock;
  ReplaceAllocator allocator([](int nth) { return nth < 3; });
  void* block = Allocate(100, 100000);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(TakeFailures().size(), 2u);
  Free(block);

  auto allocate = FAIL_CALL(VirtualAlloc, 1, ERROR_COMMITMENT_LIMIT, nullptr, 60);
  void* pages = AllocatePages(100, INFINITE);
  EXPECT_NE(pages, nullptr) << "never gives up";
  EXPECT_EQ(allocate.Calls(), 61);
  EXPECT_EQ(TakeFailures().size(), 60u);
  FreePages(pages);
}

TEST_F(GuardedAllocation, LastErrorOfTheSystemSurvivesTheLogging) {
  FakeClock clock;
  auto allocate = FAIL_CALL(VirtualAlloc, 1, ERROR_COMMITMENT_LIMIT, nullptr, 2);
  SetLastError(ERROR_SUCCESS);
  EXPECT_EQ(AllocatePages(100, 0), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_COMMITMENT_LIMIT));
}

// The host's handler for a failing allocator runs inside the allocation, under the position of its caller.
TEST_F(GuardedAllocation, HandlerNamesTheAllocationUnderWay) {
  SKIP_WITHOUT_FAILING_HEAP();
  FakeClock clock;
  static int calls;
  calls = 0;
  std::set_new_handler([] {
    EXPECT_EQ(MemAllocHandler(1234), 1);
    if (++calls == 2) std::set_new_handler(nullptr);
  });
  EXPECT_EQ(Allocate(kTooMuch, 0), nullptr);
  EXPECT_EQ(std::set_new_handler(nullptr), nullptr);
  EXPECT_EQ(calls, 2);
  const auto failures = TakeFailures();  // all with the caller's position
  ASSERT_EQ(failures.size(), 3u);
  EXPECT_EQ(failures[0].size, 1234u);
  EXPECT_EQ(failures[1].count, failures[0].count + 1);
  EXPECT_EQ(failures[2].size, 0xF0001000u);
  EXPECT_EQ(failures[2].count, failures[0].count + 2);
  EXPECT_EQ(clock.Sleeps().size(), 3u);

  EXPECT_EQ(MemAllocHandler(0xFFFFFFFF), 1);
  const auto outside = TakeLines(channel::kMemoryAllocation);
  ASSERT_EQ(outside.size(), 1u);
  EXPECT_EQ(outside[0].sourceFile, "????????.???");
  EXPECT_EQ(outside[0].line, 0);
  EXPECT_EQ(ParseFailure(outside[0].message).size, 0xFFFFFFFFu);
}

TEST_F(GuardedAllocation, PositionsOfThreadsDoNotMix) {
  FakeClock clock;
  ReplaceAllocator allocator([](int) {
    std::thread([] { MemAllocHandler(1); }).join();
    return false;
  });
  Free(Allocate(10));
  const auto lines = TakeLines(channel::kMemoryAllocation);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].sourceFile, "????????.???");
}

// Whatever else an allocator throws, or a position that cannot be read, ends in the guard.
TEST_F(GuardedAllocation, NothingEscapes) {
  TakeLines(channel::kAssert);
  {
    ReplaceAllocator allocator([](int) -> bool { throw 1; });
    EXPECT_EQ(Allocate(10, INFINITE), nullptr);
  }
  EXPECT_EQ(_MemAlloc(reinterpret_cast<const char*>(16), 1, 10, 0), nullptr);
  const auto messages = TakeMessages(channel::kAssert);
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [](const std::string& message) { return message.ends_with("_CATCH_AE"); }),
            2);
}

// The heap checks of a process of its own, from its first call on.

int g_heapChecks, g_heapCode;
int __cdecl CountHeapCheck() {
  ++g_heapChecks;
  return g_heapCode;
}

CHILD_ROLE(HeapCheckSchedule) {
  g_heapCode = _HEAPOK;
  ReplaceCall check("_heapchk", &CountHeapCheck);
  auto checksOf = [](auto&& call) {
    const int before = g_heapChecks;
    call();
    return g_heapChecks - before;
  };
  EXPECT_EQ(checksOf([] { Free(nullptr); }), 1) << "before the first allocation";
  void* block = nullptr;
  EXPECT_EQ(checksOf([&] { block = Allocate(1); }), 0);
  EXPECT_EQ(checksOf([&] { Free(block), Free(nullptr); }), 0);
  EXPECT_EQ(checksOf([] {
              for (int i = 2; i < 10000; ++i) Free(Allocate(1));
            }),
            0);
  EXPECT_EQ(checksOf([&] { block = Allocate(1); }), 1) << "the 10000th";
  EXPECT_EQ(checksOf([&] { Free(block), Free(nullptr); }), 2);
  EXPECT_EQ(checksOf([] { Free(Allocate(1)); }), 0);
  EXPECT_EQ(checksOf([] {
              for (int i = 10002; i < 20000; ++i) Free(Allocate(1));
            }),
            0);
  EXPECT_EQ(checksOf([] { Free(Allocate(1)); }), 2);
  return testing::Test::HasFailure();
}

TEST(HeapCheck, RidesOnTheCountOfAllocations) {
  LogFolder();
  EXPECT_EQ(ChildProcess("HeapCheckSchedule").Wait(), 0);
}

CHILD_ROLE(CorruptHeap) {
  LogFolder();
  ReplaceCall check("_heapchk", &CountHeapCheck);
  g_heapCode = _HEAPBADNODE;
  auto beep = STAND_IN(Beep, [](int, DWORD, DWORD) { return TRUE; });
  auto threads = STAND_IN(CreateThread, [](int, auto... arguments) { return CreateThread(arguments...); });
  _MemFree("free.cpp", 11, nullptr);
  EXPECT_GE(threads.Calls(), 1) << "the display";
  for (int i = 1; i < 10000; ++i) Free(Allocate(1));
  void* block = _MemAlloc("alloc.cpp", 22, 1, 0);
  EXPECT_NE(block, nullptr) << "only reported";
  g_heapCode = _HEAPOK;
  Free(block);
  return testing::Test::HasFailure();
}

TEST(HeapCheck, ReportsACorruptHeapAndGoesOn) {
  LogFolder();
  TakeLines(channel::kMemoryAllocation);
  TakeLines(channel::kAssert);
  ASSERT_EQ(ChildProcess("CorruptHeap").Wait(), 0);
  const auto memory = TakeLines(channel::kMemoryAllocation);
  ASSERT_EQ(memory.size(), 2u);
  for (const auto& line : memory) EXPECT_EQ(line.message, "_heapchk()=-4");
  EXPECT_EQ(memory[0].sourceFile, "free.cpp");
  EXPECT_EQ(memory[0].line, 11);
  EXPECT_EQ(memory[1].sourceFile, "alloc.cpp");
  EXPECT_EQ(memory[1].line, 22);
  EXPECT_EQ(TakeMessages(channel::kAssert),
            (std::vector<std::string>{"ASSERT : memory.cpp(322)", "ASSERT : memory.cpp(249)"}));
}

// A process without any free region of 64 KiB left.
CHILD_ROLE(ExhaustedAddressSpace) {
  LogFolder();
  std::vector<void*> taken;
  taken.reserve(100000);
  for (SIZE_T size = 1u << 30; size >= 0x10000; size /= 2)
    while (void* region = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS)) taken.push_back(region);
  EXPECT_EQ(Allocate(1 << 20, 1), nullptr);
  EXPECT_EQ(AllocatePages(1 << 20, 1), nullptr);
  VirtualFree(taken.front(), 0, MEM_RELEASE);
  void* block = Allocate(1 << 20, 1);
  void* pages = AllocatePages(1 << 20, 1);
  EXPECT_NE(block, nullptr);
  EXPECT_NE(pages, nullptr);
  Free(block);
  FreePages(pages);
  return testing::Test::HasFailure();
}

TEST_F(GuardedAllocation, ExhaustedAddressSpaceFailsInOrder) {
  SKIP_WITHOUT_FAILING_HEAP();
  ASSERT_EQ(ChildProcess("ExhaustedAddressSpace").Wait(), 0);
  const auto failures = TakeFailures();
  ASSERT_EQ(failures.size(), 2u);
  for (const auto& failure : failures) EXPECT_EQ(failure.size, (1u << 20) + 4096u);
  EXPECT_EQ(failures[1].count, 2u);
}

}  // namespace
}  // namespace qel::test
