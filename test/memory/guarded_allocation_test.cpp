#include "qelibaselib/memory/guarded_allocation.h"

#include <new>

#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr int kLine = 815;
constexpr char kSource[] = "host.cpp";
constexpr DWORD kTooMuch = 0xF0000000;  // more than a process has

void* Allocate(DWORD size, DWORD timeoutMs = 0) { return _MemAlloc(kSource, kLine, size, timeoutMs); }
void Free(void* block) { _MemFree(kSource, kLine, block); }
void* AllocatePages(DWORD size, DWORD timeoutMs = 0) { return _VMemAlloc(kSource, kLine, size, timeoutMs); }
BOOL FreePages(void* base) { return _VMemFree(kSource, kLine, base); }

// What one failed attempt has written.
struct Failure {
  unsigned long size = 0, load = 0, largest = 0, sum = 0, count = 0;
  unsigned long long physical = 0, virtualMemory = 0;
};

Failure ParseFailure(const std::string& message) {
  Failure found;
  int length = 0;
  std::sscanf(message.c_str(),
              "allocSize=%lu, MemoryLoad=%lu, AvailPhys=%llu, AvailVirtual=%llu, MaxFreeSize=%lu, FreeMemSize=%lu, "
              "errCount1=%lu%n",
              &found.size, &found.load, &found.physical, &found.virtualMemory, &found.largest, &found.sum, &found.count,
              &length);
  EXPECT_EQ(static_cast<size_t>(length), message.size()) << message;
  return found;
}

// Stands in for the array operators that the library allocates with.
class ReplaceAllocator {
 public:
  // Asked before every allocation whether it fails; `nth` counts from 1.
  explicit ReplaceAllocator(std::function<bool(int nth)> fails = [](int) { return false; }) : fails_(std::move(fails)) {
    active_ = this;
  }
  ReplaceAllocator(const ReplaceAllocator&) = delete;
  ReplaceAllocator& operator=(const ReplaceAllocator&) = delete;
  ~ReplaceAllocator() { active_ = nullptr; }

  std::vector<std::size_t> sizes;
  int freed = 0;

 private:
  static void* Allocate(std::size_t size) {
    active_->sizes.push_back(size);
    if (active_->fails_(static_cast<int>(active_->sizes.size()))) throw std::bad_alloc();
    return operator new[](size);
  }
  static void Free(void* block) {
    ++active_->freed;
    operator delete[](block);
  }
  static inline ReplaceAllocator* active_ = nullptr;
  std::function<bool(int)> fails_;
  // operator new[](size_t) and operator delete[](void*)
  ReplaceCall allocate_{"_Znaj", &Allocate};
  ReplaceCall free_{"_ZdaPv", &Free};
};

class GuardedAllocation : public testing::Test {
 protected:
  GuardedAllocation() { TakeLines(channel::kMemoryAllocation); }

  std::vector<Failure> TakeFailures() {
    std::vector<Failure> failures;
    for (const auto& line : TakeLines(channel::kMemoryAllocation)) {
      EXPECT_EQ(line.sourceFile + std::to_string(line.line), "host.cpp815");
      failures.push_back(ParseFailure(line.message));
    }
    return failures;
  }
};

TEST_F(GuardedAllocation, AsksForSizeClasses) {
  const std::pair<DWORD, std::size_t> cases[] = {{0, 16},      {1, 16},          {7, 16},         {8, 64},
                                                 {55, 64},     {56, 256},        {247, 256},      {248, 1024},
                                                 {1015, 1024}, {1016, 4096},     {4088, 4096},    {4089, 8192},
                                                 {5000, 8192}, {0xFFFFFFF8, 16}, {0xFFFFFFFF, 16}};
  ReplaceAllocator allocator;
  for (const auto& [asked, granted] : cases) {
    char* block = static_cast<char*>(Allocate(asked));
    ASSERT_NE(block, nullptr) << asked;
    EXPECT_EQ(allocator.sizes.back(), granted) << asked;
    std::memset(block, 0xCC, granted);
    Free(block);
  }
  EXPECT_EQ(allocator.freed, static_cast<int>(std::size(cases)));
  EXPECT_EQ(TakeFailures().size(), 0u);
}

TEST_F(GuardedAllocation, PagesAreFreshCommittedAndOfTheSameClasses) {
  std::vector<SIZE_T> sizes;
  {
    auto allocate = WATCH_CALL(VirtualAlloc, [&](LPVOID, SIZE_T size, DWORD type, DWORD protection) {
      sizes.push_back(size);
      EXPECT_EQ(type, MEM_COMMIT | MEM_RESERVE);
      EXPECT_EQ(protection, static_cast<DWORD>(PAGE_READWRITE));
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
  SKIP_UNDER_ASAN();
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
  SKIP_UNDER_ASAN();
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
  SKIP_UNDER_ASAN();
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
  const Messages outside = TakePlacedMessages(channel::kMemoryAllocation);
  ASSERT_EQ(outside.size(), 1u);
  EXPECT_TRUE(outside[0].starts_with("????????.?\?\?(0): allocSize=4294967295, ")) << outside[0];
}

TEST_F(GuardedAllocation, PositionsOfThreadsDoNotMix) {
  FakeClock clock;
  ReplaceAllocator allocator([](int) {
    OnThread([] { MemAllocHandler(1); });
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
  const Messages messages = TakeMessages(channel::kAssert);
  const auto isClause = [](const std::string& message) { return message.ends_with("_CATCH_AE"); };
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(), isClause), 2);
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
  const auto allocateAndFree = [](int times) {
    while (--times >= 0) Free(Allocate(1));
  };
  EXPECT_EQ(checksOf([] { Free(nullptr); }), 1) << "before the first allocation";
  void* block = nullptr;
  EXPECT_EQ(checksOf([&] { block = Allocate(1); }), 0);
  EXPECT_EQ(checksOf([&] { Free(block), Free(nullptr); }), 0);
  EXPECT_EQ(checksOf([&] { allocateAndFree(9998); }), 0);
  EXPECT_EQ(checksOf([&] { block = Allocate(1); }), 1) << "the 10000th";
  EXPECT_EQ(checksOf([&] { Free(block), Free(nullptr); }), 2);
  EXPECT_EQ(checksOf([&] { allocateAndFree(9999); }), 0);
  EXPECT_EQ(checksOf([&] { allocateAndFree(1); }), 2) << "the 20000th";
  return testing::Test::HasFailure();
}

TEST(HeapCheck, RidesOnTheCountOfAllocations) { EXPECT_EQ(ChildProcess("HeapCheckSchedule").Wait(), 0); }

CHILD_ROLE(CorruptHeap) {
  LogFolder();
  ReplaceCall check("_heapchk", &CountHeapCheck);
  g_heapCode = _HEAPBADNODE;
  auto beep = ANSWER_CALL(Beep, TRUE);
  auto threads = COUNT_CALLS(CreateThread);
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
  TakeLines(channel::kMemoryAllocation);
  TakeLines(channel::kAssert);
  ASSERT_EQ(ChildProcess("CorruptHeap").Wait(), 0);
  EXPECT_EQ(TakePlacedMessages(channel::kMemoryAllocation),
            (Messages{"free.cpp(11): _heapchk()=-4", "alloc.cpp(22): _heapchk()=-4"}));
  EXPECT_EQ(TakeMessages(channel::kAssert), (Messages{"ASSERT : memory.cpp(322)", "ASSERT : memory.cpp(249)"}));
}

// A process without any free region of 64 KiB left.
CHILD_ROLE(ExhaustedAddressSpace) {
  LogFolder();
  TakeAll(Resource::kAddressSpace);
  EXPECT_EQ(Allocate(1 << 20, 1), nullptr);
  EXPECT_EQ(AllocatePages(1 << 20, 1), nullptr);
  GiveBack();
  void* block = Allocate(1 << 20, 1);
  void* pages = AllocatePages(1 << 20, 1);
  EXPECT_NE(block, nullptr);
  EXPECT_NE(pages, nullptr);
  Free(block);
  FreePages(pages);
  return testing::Test::HasFailure();
}

TEST_F(GuardedAllocation, ExhaustedAddressSpaceFailsInOrder) {
  SKIP_UNDER_ASAN();
  ASSERT_EQ(ChildProcess("ExhaustedAddressSpace").Wait(), 0);
  const auto failures = TakeFailures();
  ASSERT_EQ(failures.size(), 2u);
  for (const auto& failure : failures) EXPECT_EQ(failure.size, (1u << 20) + 4096u);
  EXPECT_EQ(failures[1].count, 2u);
}

}  // namespace
}  // namespace qel::test
