// The three clauses: what they write, in which order, and that nothing leaves them.
#include "qelibaselib/base/floating_point_guard.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/guard/structured_exception_translator.h"
#include "test/guard/recorder.h"
#include "test/support/bad_pointer.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

using Steps = std::vector<std::string>;
constexpr SourcePosition kPlace{100, "place.cpp"};

constexpr auto& Fault = WriteBadAddress;

class TestException : public CException {
 public:
  explicit TestException(std::string text = "no room") : text_(std::move(text)) {}
  ~TestException() override { g_recorded.steps.push_back("deleted"); }
  BOOL GetErrorMessage(LPSTR text, UINT size, PUINT) const override {
    std::strncpy(text, text_.c_str(), size - 1);
    text[size - 1] = '\0';
    return TRUE;
  }

 private:
  std::string text_;
};

class Guard : public testing::Test {
 protected:
  Guard() { g_recorded = {}; }
};

TEST_F(Guard, LeavesABodyWithoutExceptionAlone) {
  int value = 0;
  EXPECT_TRUE(Guarded(kPlace, [&] { value = 5; }));
  EXPECT_EQ(value, 5);
  EXPECT_TRUE(g_recorded.steps.empty());
}

// What a clause notes; each has a line of its own.
Steps NotedBy(int line, const char* clause, const char* message = "") {
  return {Print("line %d _CATCH_%s in place.cpp", line, clause),
          Print("report %d Exception CATCH_%s%s in place.cpp by viewer.exe", line, clause, message)};
}

TEST_F(Guard, EveryExceptionHasItsClause) {
  EXPECT_FALSE(Guarded(kPlace, &Fault));
  EXPECT_EQ(std::exchange(g_recorded.steps, {}), NotedBy(102, "AE")) << "without a translator";
  const CSEREG translator;
  EXPECT_FALSE(Guarded(kPlace, [] { throw std::string("text"); }));
  EXPECT_EQ(std::exchange(g_recorded.steps, {}), NotedBy(102, "AE"));
  EXPECT_FALSE(Guarded(kPlace, [] { throw new TestException; }));
  EXPECT_EQ(g_recorded.steps.back(), "deleted");
  g_recorded.steps.pop_back();
  EXPECT_EQ(std::exchange(g_recorded.steps, {}), NotedBy(101, "CE", " : no room"));
  EXPECT_FALSE(g_recorded.hasRecord || g_recorded.hasContext);
  EXPECT_FALSE(Guarded(kPlace, &Fault));
  EXPECT_EQ(g_recorded.steps, NotedBy(100, "SE"));
  EXPECT_TRUE(g_recorded.hasRecord && g_recorded.hasContext);
  EXPECT_EQ(g_recorded.record.ExceptionCode, EXCEPTION_ACCESS_VIOLATION);
  EXPECT_EQ(g_recorded.record.ExceptionInformation[1], kBadAddress);
  EXPECT_EQ(reinterpret_cast<DWORD>(g_recorded.record.ExceptionAddress), g_recorded.context.Eip);
}

std::vector<DWORD> g_way;  // where each function on the way to a fault was called

void NoteCaller(void* address) { g_way.insert(g_way.begin(), reinterpret_cast<DWORD>(address)); }
__attribute__((noinline)) int FaultInside(int value) {
  NoteCaller(__builtin_return_address(0));
  Fault();
  return value + 1;
}
__attribute__((noinline)) int CallFault(int value) {
  NoteCaller(__builtin_return_address(0));
  volatile char room[4096];  // so that what the report calls would stand on the frames below
  room[0] = 1;
  return FaultInside(value) + room[0];
}
__attribute__((noinline)) int CallGuarded(int value) {
  NoteCaller(__builtin_return_address(0));
  Guarded(kPlace, [&] { value = CallFault(value); });
  return value + 1;
}

TEST_F(Guard, ReportSeesTheWayToTheFault) {
  SKIP_UNDER_ASAN();
  const CSEREG translator;
  g_way.clear();
  EXPECT_EQ(CallGuarded(7), 8);
  ASSERT_EQ(g_way.size(), 3u);
  auto caller = g_recorded.callers.begin();
  for (const DWORD expected : g_way) {
    caller = std::find(caller, g_recorded.callers.end(), expected);
    EXPECT_NE(caller, g_recorded.callers.end()) << std::hex << expected;
  }
}

TEST_F(Guard, TranslatorsNestAndBelongToTheirThread) {
  const CSEREG outer;
  { const CSEREG inner; }
  EXPECT_FALSE(Guarded(kPlace, &Fault));
  EXPECT_TRUE(g_recorded.hasRecord);
  OnThread([] { Guarded(kPlace, &Fault); });
  EXPECT_FALSE(g_recorded.hasRecord);
}

TEST_F(Guard, FrameworkMessageIsCutToItsBuffer) {
  Guarded(kPlace, [] { throw new TestException(std::string(1000, 'x')); });
  EXPECT_NE(g_recorded.steps.at(1).find(" : " + std::string(255, 'x') + " in "), std::string::npos);
}

TEST_F(Guard, ClauseSurvivesWhatItCalls) {
  g_recorded.faultInLine = g_recorded.faultInReport = true;
  EXPECT_FALSE(Guarded(kPlace, [] { throw new TestException; }));
  EXPECT_EQ(g_recorded.steps.size(), 3u);
  EXPECT_EQ(g_recorded.steps.back(), "deleted");
  g_recorded = {};
  g_recorded.throwInReport = true;
  EXPECT_FALSE(Guarded(kPlace, &Fault));
  EXPECT_EQ(g_recorded.steps.size(), 2u);
}

TEST_F(Guard, FloatingPointTrapsAreMaskedInTheReportAndOnlyThere) {
  const std::pair<const char*, std::function<void()>> leavings[] = {
      {"_CATCH_SE", &Fault}, {"_CATCH_CE", [] { throw new TestException; }}, {"_CATCH_AE", [] { throw 1; }}};
  const CSEREG translator;
  for (const auto& [clause, leave] : leavings) {
    g_recorded = {};
    unsigned int x87 = 0, sse2 = 0;
    Guarded(kPlace, [&, leave = &leave] {
      __control87_2(0, _EM_ZERODIVIDE, &x87, &sse2);
      (*leave)();
    });
    ASSERT_FALSE(g_recorded.steps.empty());
    EXPECT_NE(g_recorded.steps[0].find(clause), std::string::npos) << g_recorded.steps[0];
    EXPECT_EQ(g_recorded.masksInReport, _MCW_EM) << clause;
    __control87_2(0, 0, &x87, &sse2);
    EXPECT_EQ(x87, _MCW_EM & ~_EM_ZERODIVIDE) << clause;
    EXPECT_EQ(sse2, _MCW_EM & ~_EM_ZERODIVIDE) << clause;
    __control87_2(_MCW_EM, _MCW_EM, &x87, &sse2);
  }
}

TEST_F(Guard, SwallowedIsSilentAndDeletes) {
  EXPECT_TRUE(Swallowed([] {}));
  EXPECT_FALSE(Swallowed(&Fault));
  EXPECT_FALSE(Swallowed([] { throw 1; }));
  EXPECT_TRUE(g_recorded.steps.empty());
  EXPECT_FALSE(Swallowed([] { throw new TestException; }));
  EXPECT_EQ(g_recorded.steps, Steps{"deleted"});
}

TEST_F(Guard, NestedGuardsReportEachItsOwn) {
  EXPECT_FALSE(Guarded(kPlace, [] {
    Guarded({200, "inner.cpp"}, &Fault);
    throw 1;
  }));
  ASSERT_EQ(g_recorded.steps.size(), 4u);
  EXPECT_EQ(g_recorded.steps[0], "line 202 _CATCH_AE in inner.cpp");
  EXPECT_EQ(g_recorded.steps[2], "line 102 _CATCH_AE in place.cpp");
}

}  // namespace
}  // namespace qel::test
