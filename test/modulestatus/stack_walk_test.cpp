#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"

namespace qel::test {
namespace {

// A readable page of a pattern.
class LonePage : public PageBuffer {
 public:
  LonePage() {
    for (DWORD i = 0; i < Size(); ++i) Begin()[i] = static_cast<BYTE>(i * 11 + i / 256);
  }
};

std::string WalkText(const CONTEXT* context) {
  return WrittenBy([&](std::FILE* stream) {
    EXPECT_EQ(StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), context), _HEAPOK);
  });
}
qellog::ExceptionReport WalkFrom(const CONTEXT& context) { return qellog::ParseExceptionReport(WalkText(&context)); }

CONTEXT ContextAt(const void* code, const void* stack, const void* frame) {
  CONTEXT context{};
  context.Eip = Number(code);
  context.Esp = Number(stack);
  context.Ebp = Number(frame);
  return context;
}

const void* Inside(int (*function)(const volatile int*), int displacement) {
  return reinterpret_cast<const char*>(function) + displacement;
}

std::vector<std::string> CodeAround(const void* address) {
  const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE);
  const CONTEXT context = ContextAt(address, nullptr, nullptr);
  const std::string text = WrittenBy([&](std::FILE* stream) {
    ExceptLogOut(stream, L"", "", nullptr, &context, 1, "", GetCurrentProcess(), 0, GetCurrentThread());
  });
  return qellog::ParseExceptionReport(text).code;
}

std::string g_walkOfFault;

TEST(StackWalk, NamesTheFaultingFunctionAndItsCaller) {
  CapturedFault fault;
  ASSERT_TRUE(Capture(
      fault, [] { CallReadThrough(nullptr); }, [](CapturedFault& now) { g_walkOfFault = WalkText(&now.context); }));
  const auto walk = qellog::ParseExceptionReport(g_walkOfFault);
  ASSERT_GE(walk.frames.size(), 2u);
  EXPECT_EQ(walk.frames[0].address, fault.context.Eip);
  EXPECT_EQ(walk.frames[0].function, "ReadThrough");
  EXPECT_EQ(walk.frames[0].displacement, fault.context.Eip - Number(Inside(&ReadThrough, 0)));
  EXPECT_EQ(walk.frames[1].function, "CallReadThrough");
  EXPECT_EQ(walk.frames[1].displacement, walk.frames[1].address - Number(Inside(&CallReadThrough, 0)));
  EXPECT_EQ(walk.rawStack.size(), 64u);
  const std::string start = Print("0x%08lx ReadThrough() + 0x%x\n0x", fault.context.Eip, walk.frames[0].displacement);
  EXPECT_NE(g_walkOfFault.find(start), std::string::npos) << g_walkOfFault;
  EXPECT_NE(g_walkOfFault.find(Print("%08lX    ", fault.context.Esp)), std::string::npos);
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
    EXPECT_EQ(walk.frames[0].address, Number(called)) << shape.name;
    const ChainFrame* frame = chain;
    for (size_t i = 1; i < shape.frames; ++i, frame = static_cast<const ChainFrame*>(frame->next)) {
      EXPECT_EQ(walk.frames[i].address, Number(frame->caller)) << shape.name;
    }
  }
}

TEST(StackWalk, StopsTheRawDumpAtTheFirstUnreadableByte) {
  const auto symbols = OwnDebugHelpOnly();
  const LonePage page;
  const BYTE* const begin = page.End() - 40;
  EXPECT_EQ(WalkFrom(ContextAt(nullptr, begin, nullptr)).rawStack,
            (Messages{DumpLine(begin), DumpLine(begin + 16), DumpLine(begin + 32, 8)}));
  EXPECT_EQ(WalkFrom(ContextAt(nullptr, page.End(), nullptr)).rawStack, Messages{DumpLine(page.End(), 0)});
  const auto full = WalkFrom(ContextAt(nullptr, page.Begin(), nullptr)).rawStack;
  ASSERT_EQ(full.size(), 64u);
  EXPECT_EQ(full[63], DumpLine(page.Begin() + 63 * 16));
}

// A walk of one frame while the debug help does what it should not.
class DebugHelp : public ReportTest {
 protected:
  // The frames' functions, or addresses, and whether the stack follows.
  std::string Walk() {
    ChainFrame chain[1] = {{nullptr, Inside(&CallReadThrough, 9), {}}};
    const auto walk = WalkFrom(ContextAt(called_, chain, chain));
    std::string frames;
    for (const auto& frame : walk.frames) frames += frame.function + Print("(%08x) ", frame.address);
    return frames + (walk.rawStack.empty() ? "no stack" : "stack");
  }
  const void* const called_ = Inside(&ReadThrough, 6);
};

TEST_F(DebugHelp, SaysWhatIsMissing) {
  const std::string heading = "\n======================= Stack Walk ==============================================\n";
  EXPECT_EQ(WalkText(nullptr), heading + "Context not exist(122)\n");
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{});
  const CONTEXT context = ContextAt(nullptr, &context, nullptr);
  const auto allocate = FAIL_CALL(GlobalAlloc, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
  EXPECT_EQ(WalkText(&context), heading + "Not enough memory(130)\n");
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : modulestatus.cpp(127)"});
}

TEST_F(DebugHelp, WithoutTheSymbolsAddressesArePrinted) {
  const auto find = FAIL_CALL(SymGetSymFromAddr, 1, ERROR_INVALID_ADDRESS, FALSE, 1000);
  EXPECT_EQ(Walk(), Print("(%08lx) stack", Number(called_)));
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{});
}

TEST_F(DebugHelp, ThatFaultsAtAFrameEndsTheWalk) {
  const auto find = STAND_IN(SymGetSymFromAddr, [](auto...) { return ReadThrough(nullptr); });
  const auto cleanup = COUNT_CALLS(SymCleanup);
  const auto free = COUNT_CALLS(GlobalFree);
  EXPECT_EQ(Walk(), "stack");
  EXPECT_EQ(cleanup.Calls(), 1);
  EXPECT_EQ(free.Calls(), 1);
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{"StackWalkLogOut(catch(...))"});
}

TEST_F(DebugHelp, ThatFaultsAtTheStartCostsTheNames) {
  const auto start = STAND_IN(SymInitialize, [](auto...) { return ReadThrough(nullptr); });
  EXPECT_TRUE(Walk().ends_with(Print("(%08lx) stack", Number(called_))));
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{"StackWalkLogOut(catch(...))"});
}

TEST(CodeDump, MarksTheLineOfTheAddress) {
  const LonePage page;
  const auto lines = CodeAround(page.Begin() + 1000);
  ASSERT_EQ(lines.size(), 40u);
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_EQ(lines[i], (i == 20 ? ">" : "") + DumpLine(page.Begin() + 1000 - 320 + 16 * i));
}

TEST(CodeDump, StandsStillAtAnUnreadableByte) {
  const LonePage page;
  EXPECT_EQ(CodeAround(page.Begin() + 16), Messages(40, DumpLine(page.Begin() + 16 - 320, 0, "?? ")));
  const auto lines = CodeAround(page.End() - 8);
  ASSERT_EQ(lines.size(), 40u);
  EXPECT_EQ(lines[19], DumpLine(page.End() - 24));
  EXPECT_EQ(lines[20], ">" + DumpLine(page.End() - 8, 8, "?? "));
  for (size_t i = 21; i < lines.size(); ++i) EXPECT_EQ(lines[i], DumpLine(page.End(), 0, "?? "));
}

}  // namespace
}  // namespace qel::test
