#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "qelibaselib/qelibaselib.h"
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_reader.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/target.h"

namespace qel::test {
namespace {

DWORD AddressOf(const void* pointer) { return static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(pointer)); }
DWORD AddressOf(int (*function)(const volatile int*)) {
  return static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(function));
}

constexpr DWORD kPage = 4096;

// One readable page between two that are not, filled with a pattern.
class LonePage {
 public:
  LonePage() : reserved_(static_cast<BYTE*>(VirtualAlloc(nullptr, 3 * kPage, MEM_RESERVE, PAGE_READWRITE))) {
    VirtualAlloc(begin(), kPage, MEM_COMMIT, PAGE_READWRITE);
    for (DWORD i = 0; i < kPage; ++i) begin()[i] = Pattern(i);
  }
  LonePage(const LonePage&) = delete;
  LonePage& operator=(const LonePage&) = delete;
  ~LonePage() { VirtualFree(reserved_, 0, MEM_RELEASE); }
  BYTE* begin() const { return reserved_ + kPage; }
  BYTE* end() const { return begin() + kPage; }
  static BYTE Pattern(DWORD offset) { return static_cast<BYTE>(offset * 11 + offset / 256); }
  // The pattern that lies there, read back from a dump.
  void ExpectBytes(const DumpLine& line, size_t count) const {
    for (size_t i = 0; i < count; ++i) {
      EXPECT_EQ(line.bytes.at(i), Pattern(line.address + i - AddressOf(begin()))) << std::hex << line.address + i;
    }
  }

 private:
  BYTE* const reserved_;
};

struct Walk {
  std::vector<Frame> frames;
  std::vector<DumpLine> stack;
};

Walk WalkFrom(const CONTEXT& context) {
  ReportReader reader(WrittenBy([&](std::FILE* stream) {
    EXPECT_EQ(StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), &context), _HEAPOK);
  }));
  Walk walk;
  ReadStackWalk(reader, walk.frames, walk.stack);
  EXPECT_TRUE(reader.AtEnd());
  return walk;
}

CONTEXT ContextAt(const void* code, const void* stack, const void* frame) {
  CONTEXT context{};
  context.Eip = AddressOf(code);
  context.Esp = AddressOf(stack);
  context.Ebp = AddressOf(frame);
  return context;
}

const void* Inside(int (*function)(const volatile int*), int displacement) {
  return reinterpret_cast<const char*>(AddressOf(function)) + displacement;
}

std::vector<DumpLine> CodeAround(const void* address) {
  const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE);
  const CONTEXT context = ContextAt(address, nullptr, nullptr);
  ReportReader reader(WrittenBy([&](std::FILE* stream) {
    ExceptLogOut(stream, L"", "", nullptr, &context, 1, "", GetCurrentProcess(), 0, GetCurrentThread());
  }));
  return ReadExceptionReport(reader).code;
}

std::string g_walkOfFault;

TEST(StackWalk, NamesTheFaultingFunctionAndItsCaller) {
  CapturedFault fault;
  ASSERT_TRUE(Capture(
      fault, [] { CallReadThrough(nullptr); },
      [](CapturedFault& now) {
        g_walkOfFault = WrittenBy(
            [&](std::FILE* stream) { StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), &now.context); });
      }));
  Walk walk;
  ReportReader reader(g_walkOfFault);
  ReadStackWalk(reader, walk.frames, walk.stack);
  ASSERT_GE(walk.frames.size(), 2u);
  EXPECT_EQ(walk.frames[0].address, fault.context.Eip);
  EXPECT_EQ(walk.frames[0].function, "ReadThrough");
  EXPECT_EQ(walk.frames[0].displacement, fault.context.Eip - AddressOf(&ReadThrough));
  EXPECT_EQ(walk.frames[1].function, "CallReadThrough");
  EXPECT_EQ(walk.frames[1].displacement, walk.frames[1].address - AddressOf(&CallReadThrough));
  EXPECT_EQ(walk.stack.size(), 64u);
  EXPECT_EQ(walk.stack[0].address, fault.context.Esp);
}

struct ChainFrame {
  const void* next;
  const void* caller;
  DWORD room[6];
};

TEST(StackWalk, EndsWithTheChain) {
  const void* const called = Inside(&ReadThrough, 6);
  const void* const first = Inside(&CallReadThrough, 9);
  const void* const second = Inside(&ReadThrough, 7);
  ChainFrame chain[3] = {};
  const struct {
    const char* name;
    const void* next[3];
    unsigned frames;
  } cases[] = {
      {"zero", {&chain[1], nullptr, nullptr}, 2},
      {"falling", {&chain[2], nullptr, &chain[1]}, 3},
      {"itself", {&chain[0], nullptr, nullptr}, 2},
      {"circle", {&chain[1], &chain[0], nullptr}, kLinux ? 3 : 4},  // the layer sees that the frame does not rise
      {"unreadable", {&chain[1], &chain[2], reinterpret_cast<void*>(8)}, 4},
  };
  for (const auto& shape : cases) {
    for (int i = 0; i < 3; ++i) chain[i] = {shape.next[i], i == 1 ? second : first, {}};
    const auto walk = WalkFrom(ContextAt(called, chain, chain));
    ASSERT_EQ(walk.frames.size(), shape.frames) << shape.name;
    EXPECT_EQ(walk.frames[0].address, AddressOf(called)) << shape.name;
    const ChainFrame* frame = chain;
    for (size_t i = 1; i < shape.frames; ++i, frame = static_cast<const ChainFrame*>(frame->next)) {
      EXPECT_EQ(walk.frames[i].address, AddressOf(frame->caller)) << shape.name;
    }
  }
}

TEST(StackWalk, StopsTheRawDumpAtTheFirstUnreadableByte) {
  const LonePage page;
  const auto walk = WalkFrom(ContextAt(nullptr, page.end() - 40, nullptr));
  ASSERT_EQ(walk.stack.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(walk.stack[i].address, AddressOf(page.end() - 40 + 16 * i));
    EXPECT_EQ(walk.stack[i].bytes.size(), i < 2 ? 16u : 8u);
    page.ExpectBytes(walk.stack[i], walk.stack[i].bytes.size());
  }
  const auto full = WalkFrom(ContextAt(nullptr, page.begin(), nullptr));
  ASSERT_EQ(full.stack.size(), 64u);
  page.ExpectBytes(full.stack[63], 16);
  const auto none = WalkFrom(ContextAt(nullptr, page.end(), nullptr));
  ASSERT_EQ(none.stack.size(), 1u);
  EXPECT_TRUE(none.stack[0].bytes.empty());
}

TEST(StackWalk, SaysThatTheContextIsMissing) {
  EXPECT_EQ(WrittenBy([](std::FILE* stream) {
              EXPECT_EQ(StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), nullptr), _HEAPOK);
            }),
            "\n======================= Stack Walk ==============================================\n"
            "Context not exist(122)\n");
}

TEST(StackWalk, SaysThatMemoryIsMissing) {
  LogFolder();
  TakeLines(channel::kAssert);
  const CONTEXT context = ContextAt(nullptr, &context, nullptr);
  const auto allocate = FAIL_CALL(GlobalAlloc, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
  EXPECT_EQ(WrittenBy([&](std::FILE* stream) {
              EXPECT_EQ(StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), &context), _HEAPOK);
            }),
            "\n======================= Stack Walk ==============================================\n"
            "Not enough memory(130)\n");
  EXPECT_EQ(TakeMessages(channel::kAssert), (std::vector<std::string>{"ASSERT : modulestatus.cpp(127)"}));
}

TEST(StackWalk, PrintsAddressesWithoutSymbols) {
  ChainFrame chain[1] = {{nullptr, Inside(&CallReadThrough, 9), {}}};
  const auto find = FAIL_CALL(SymGetSymFromAddr, 1, ERROR_INVALID_ADDRESS, FALSE, 1000);
  const auto walk = WalkFrom(ContextAt(Inside(&ReadThrough, 6), chain, chain));
  ASSERT_EQ(walk.frames.size(), 1u);
  EXPECT_EQ(walk.frames[0].function, "");
}

TEST(StackWalk, DumpsTheStackAlthoughTheWalkFaults) {
  LogFolder();
  TakeLines(channel::kModuleStatusError);
  ChainFrame chain[1] = {{nullptr, Inside(&CallReadThrough, 9), {}}};
  const auto find = STAND_IN(SymGetSymFromAddr,
                             [](int, HANDLE, DWORD, DWORD*, IMAGEHLP_SYMBOL*) -> BOOL { return ReadThrough(nullptr); });
  const auto cleanup = STAND_IN(SymCleanup, [](int, HANDLE process) { return SymCleanup(process); });
  const auto free = STAND_IN(GlobalFree, [](int, HGLOBAL block) { return GlobalFree(block); });
  const auto walk = WalkFrom(ContextAt(Inside(&ReadThrough, 6), chain, chain));
  EXPECT_TRUE(walk.frames.empty());
  EXPECT_FALSE(walk.stack.empty());
  EXPECT_EQ(cleanup.Calls(), 1);
  EXPECT_EQ(free.Calls(), 1);
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), (std::vector<std::string>{"StackWalkLogOut(catch(...))"}));
}

TEST(StackWalk, GoesOnAlthoughTheDebugHelpFaults) {
  LogFolder();
  TakeLines(channel::kModuleStatusError);
  ChainFrame chain[1] = {{nullptr, Inside(&CallReadThrough, 9), {}}};
  const auto start = STAND_IN(SymInitialize, [](int, HANDLE, LPCSTR, BOOL) -> BOOL { return ReadThrough(nullptr); });
  const auto walk = WalkFrom(ContextAt(Inside(&ReadThrough, 6), chain, chain));
  ASSERT_EQ(walk.frames.size(), 1u);
  EXPECT_EQ(walk.frames[0].address, AddressOf(Inside(&ReadThrough, 6)));
  EXPECT_FALSE(walk.stack.empty());
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), (std::vector<std::string>{"StackWalkLogOut(catch(...))"}));
}

TEST(CodeDump, MarksTheLineOfTheAddress) {
  const LonePage page;
  const auto lines = CodeAround(page.begin() + 1000);
  ASSERT_EQ(lines.size(), 40u);
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].address, AddressOf(page.begin()) + 1000 - 320 + 16 * i);
    EXPECT_EQ(lines[i].marked, i == 20);
    page.ExpectBytes(lines[i], 16);
  }
}

TEST(CodeDump, StandsStillAtAnUnreadableByte) {
  const LonePage page;
  for (const auto& line : CodeAround(page.begin() + 16)) {
    EXPECT_EQ(line.address, AddressOf(page.begin()) + 16 - 320);
    EXPECT_FALSE(line.marked);
    EXPECT_EQ(std::count(line.bytes.begin(), line.bytes.end(), -1), 16);
  }
  const auto lines = CodeAround(page.end() - 8);
  ASSERT_EQ(lines.size(), 40u);
  page.ExpectBytes(lines[19], 16);
  EXPECT_TRUE(lines[20].marked);
  page.ExpectBytes(lines[20], 8);
  EXPECT_EQ(std::count(lines[20].bytes.begin(), lines[20].bytes.end(), -1), 8);
  for (size_t i = 21; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].address, AddressOf(page.end()));
    EXPECT_EQ(std::count(lines[i].bytes.begin(), lines[i].bytes.end(), -1), 16);
  }
}

}  // namespace
}  // namespace qel::test
