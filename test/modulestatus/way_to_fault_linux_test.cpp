// Walks from faults in code without frame pointers and in the C library.
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"

#pragma GCC optimize("O2", "omit-frame-pointer")
#define QEL_OWN_FRAME __attribute__((noipa, noinline))

namespace qel::test {
namespace {

const char* g_nowhere = reinterpret_cast<const char*>(16);

extern "C" {
static QEL_OWN_FRAME int ReadPlainly(const char* text) { return text[1] + 1; }
static QEL_OWN_FRAME int CallReadPlainly(const char* text) { return ReadPlainly(text) + 1; }
static QEL_OWN_FRAME int MeasureText(const char* text) { return static_cast<int>(std::strlen(text)) + 1; }
static QEL_OWN_FRAME int CopyText(const char* text) {
  char copy[100];
  std::memcpy(copy, text, std::strlen("text") + ReadPlainly("size"));
  return copy[0];
}
static QEL_OWN_FRAME int CompareBadly(const void* left, const void*) {
  return ReadPlainly(g_nowhere) + (left != nullptr);
}
static QEL_OWN_FRAME int SortBadly() {
  int numbers[] = {3, 1, 2};
  std::qsort(numbers, 3, sizeof numbers[0], &CompareBadly);
  return numbers[0];
}
[[noreturn]] static QEL_OWN_FRAME void ReadAndEnd(const char* text) {
  ReadPlainly(text);
  std::abort();
}
// Its last instruction is the call.
[[noreturn]] static QEL_OWN_FRAME void CallWithoutReturn() { ReadAndEnd(g_nowhere); }
static QEL_OWN_FRAME int AlignAndRead(int value) {
  alignas(64) volatile int room[16] = {value};
  return ReadPlainly(g_nowhere) + room[0];
}
static QEL_OWN_FRAME int ReadDeep(int depth) {
  const volatile int below = depth == 0 ? ReadPlainly(g_nowhere) : ReadDeep(depth - 1);
  return below;
}
}

std::string g_walk;

std::vector<qellog::StackFrame> WalkOfFault(void (*body)()) {
  CapturedFault fault;
  EXPECT_TRUE(Capture(fault, body, [](CapturedFault& now) {
    g_walk = WrittenBy(
        [&](std::FILE* stream) { StackWalkLogOut(stream, GetCurrentProcess(), GetCurrentThread(), &now.context); });
  }));
  return qellog::ParseExceptionReport(g_walk).frames;
}

// The names that are looked for, in the order in which the walk has them.
std::string FoundInOrder(const std::vector<qellog::StackFrame>& frames, const std::vector<std::string>& names) {
  std::string found;
  auto from = frames.begin();
  for (const auto& name : names) {
    const auto at = std::find_if(from, frames.end(), [&](const auto& frame) { return frame.function == name; });
    if (at == frames.end()) return found + "no " + name;
    found += name + " ";
    from = at + 1;
  }
  return "all";
}

TEST(WayToFault, IsShownWithoutFramePointers) {
  SKIP_UNDER_ASAN();
  const struct {
    void (*body)();
    std::vector<std::string> names;
  } cases[] = {
      {[] { CallReadPlainly(g_nowhere); }, {"ReadPlainly", "CallReadPlainly"}},
      {[] { MeasureText(g_nowhere); }, {"MeasureText"}},
      {[] { CopyText(g_nowhere); }, {"CopyText"}},
      {[] { SortBadly(); }, {"ReadPlainly", "CompareBadly", "qsort", "SortBadly"}},
      {[] { CallWithoutReturn(); }, {"ReadPlainly", "ReadAndEnd", "CallWithoutReturn"}},
      {[] { AlignAndRead(1); }, {"ReadPlainly", "AlignAndRead"}},
  };
  for (auto [body, names] : cases) {
    names.insert(names.end(), {"qel::test::CaptureBody", "main", "__libc_start_main", "_start"});
    const auto frames = WalkOfFault(body);
    EXPECT_EQ(FoundInOrder(frames, names), "all") << g_walk;
    for (const auto& frame : frames) {
      EXPECT_NE(frame.function, "") << "code of a module without a name\n" << g_walk;
      if (frame.function == "CallWithoutReturn") {
        EXPECT_EQ(frame.address - frame.displacement, reinterpret_cast<unsigned long>(&CallWithoutReturn));
      }
    }
  }
}

TEST(WayToFault, EndsAfterTwoThousandFrames) {
  SKIP_UNDER_ASAN();
  const auto frames = WalkOfFault([] { ReadDeep(5000); });
  EXPECT_EQ(frames.size(), 2000u);
  EXPECT_EQ(frames.back().function, "ReadDeep");
}

}  // namespace
}  // namespace qel::test
