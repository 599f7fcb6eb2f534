// The scoped helpers beside the guard.
#include <clocale>

#include "qelibaselib/base/delta_time.h"
#include "qelibaselib/base/floating_point_guard.h"
#include "qelibaselib/base/locale_scope.h"
#include "qelibaselib/base/string_converter.h"
#include "qelibaselib/guard/omp_exception.h"
#include "qelibaselib/guard/structured_exception_translator.h"
#include "qelibaselib/platform/thread_locale.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

// One virtual operation and the fields in their order: the layouts are fixed.
static_assert(sizeof(CSE) == sizeof(EXCEPTION_RECORD) + sizeof(CONTEXT));
static_assert(sizeof(CSEREG) == 3 * sizeof(void*));
static_assert(sizeof(CNdpCtrl87) == 6 * sizeof(void*));
static_assert(sizeof(CStrCnv) == 3 * sizeof(void*));
static_assert(sizeof(CSetLocale) == 3 * sizeof(void*));
static_assert(sizeof(COmpException) == 4 * sizeof(void*));

struct Masks {
  unsigned int x87 = 0, sse2 = 0;
  bool operator==(const Masks&) const = default;
};
Masks ReadMasks() {
  Masks masks;
  __control87_2(0, 0, &masks.x87, &masks.sse2);
  return masks;
}
void SetMasks(Masks masks) {
  unsigned int now;
  __control87_2(masks.x87, _MCW_EM, &now, nullptr);
  __control87_2(masks.sse2, _MCW_EM, nullptr, &now);
}

// Leaves the mark of an inexact result in both units, or tells whether there is any mark.
void MarkInexact() {
  volatile double third = 1;
  third = third / 3;
  __asm__ __volatile__("fldpi\n\tfld1\n\tfdivp\n\tfstp %st(0)");
}
bool IsMarked() {
  unsigned short x87;
  __asm__ __volatile__("fnstsw %0" : "=m"(x87));
  return ((x87 | __builtin_ia32_stmxcsr()) & 0x3F) != 0;
}

TEST(ControlWords, UnitsAreSetApartAndOnlyWhereMasked) {
  const Masks before = ReadMasks();
  unsigned int word = 0;
  EXPECT_EQ(__control87_2(0, _EM_ZERODIVIDE | _EM_INEXACT, &word, nullptr), 1);
  EXPECT_EQ(word, _MCW_EM & ~(_EM_ZERODIVIDE | _EM_INEXACT));
  EXPECT_EQ(ReadMasks(), (Masks{word, before.sse2}));
  EXPECT_EQ(__control87_2(0, _EM_DENORMAL, nullptr, &word), 1);
  EXPECT_EQ(word, _MCW_EM & ~_EM_DENORMAL);
  SetMasks(before);
  EXPECT_EQ(ReadMasks(), before);
}

TEST(ControlWords, ClearReturnsWhatWasPending) {
  _clearfp();
  volatile double zero = 0, quotient = 1 / zero;
  static_cast<void>(quotient);
  EXPECT_TRUE(_clearfp() & _EM_ZERODIVIDE);
  EXPECT_EQ(_clearfp(), 0u);
}

// The first object of the process decides, so each case has a process.
CHILD_ROLE(UseFlags) {
  const Masks before{_MCW_EM & ~_EM_OVERFLOW, _MCW_EM & ~_EM_UNDERFLOW};
  SetMasks(before);
  bool marksStay = false;
  const auto inside = [&](int flag) {
    MarkInexact();
    const CNdpCtrl87 guard(flag, 2, 0, 1, 2, 1);
    marksStay |= IsMarked();
    MarkInexact();
    return ReadMasks();
  };
  const Masks first = inside(1);
  if (marksStay || IsMarked()) return 4;
  SetMasks(before);
  const Masks second = inside(0);  // its own flag is not looked at
  Masks expected{_MCW_EM & ~_EM_ZERODIVIDE, (_MCW_EM & ~_EM_ZERODIVIDE) & ~_EM_UNDERFLOW};
  if (first != expected) return 1;
  if (second != first) return 2;
  return ReadMasks() == Masks{before.x87, before.x87} ? 0 : 3;
}
TEST(FloatingPointGuard, FlagsOfTheFirstHoldAndMasksOfX87ComeBack) { EXPECT_EQ(ChildProcess("UseFlags").Wait(), 0); }

// An exception that x87 has noted waits for its next operation; a change of the masks is one.
CHILD_ROLE(ChangeMasksWithPendingException) {
  const Masks none{_MCW_EM, _MCW_EM};
  const auto notePending = [&] {
    SetMasks(none);
    MarkInexact();
    SetMasks({_MCW_EM & ~_EM_INEXACT, _MCW_EM});
  };
  notePending();
  {
    const CNdpCtrl87 guard(1, 1, 1, 1, 1, 1);
    notePending();
  }
  const bool isMarked = IsMarked();
  SetMasks(none);
  return isMarked ? 1 : 0;
}
TEST(FloatingPointGuard, DiscardsWhatIsPendingBeforeItChangesMasks) {
  if (!kLinux) GTEST_SKIP() << "Wine traps where the test itself makes the mark";
  EXPECT_EQ(ChildProcess("ChangeMasksWithPendingException").Wait(), 0);
}

TEST(StringConverter, MakesTheOtherFormAndKeepsIt) {
  CStrCnv fromNarrow("text");
  EXPECT_STREQ(fromNarrow.Narrow(), "text");
  const wchar_t* wide = fromNarrow.Wide();
  EXPECT_STREQ(wide, L"text");
  EXPECT_EQ(fromNarrow.Wide(), wide);
  CStrCnv fromWide(L"wide \u00e4");
  EXPECT_STREQ(CStrCnv(fromWide.Narrow()).Wide(), L"wide \u00e4");
  EXPECT_STREQ(CStrCnv("").Wide(), L"");
  EXPECT_EQ(CStrCnv(static_cast<const char*>(nullptr)).Wide(), nullptr);
  EXPECT_EQ(CStrCnv(static_cast<const wchar_t*>(nullptr)).Narrow(), nullptr);
}

TEST(StringConverter, OwnsItsText) {
  std::string text = "first";
  CStrCnv converter(text.c_str());
  text = "other";
  EXPECT_STREQ(converter.Wide(), L"first");
}

TEST(OmpException, CopiesItsValues) {
  const COmpException first(5, 17, "loop.cpp");
  const COmpException copy(first);
  EXPECT_EQ(copy.error(), 5u);
  EXPECT_EQ(copy.line(), 17);
  EXPECT_STREQ(copy.sourceFile(), "loop.cpp");
}

TEST(DeltaTime, RunsForward) {
  const CDeltaTime elapsed;
  const double first = elapsed.ElapsedUs();
  EXPECT_GE(first, 0);
  EXPECT_GE(elapsed.ElapsedUs(), first);
}

TEST(LocaleScope, IsTheThreadsAndComesBack) {
  const std::string before = ThreadSetLocale(LC_ALL, nullptr);
  const int setting = _configthreadlocale(0);
  {
    const CSetLocale scope;
    EXPECT_STREQ(ThreadSetLocale(LC_NUMERIC, nullptr), "C");
    std::string other;
    OnThread([&] { other = ThreadSetLocale(LC_ALL, nullptr); });
    EXPECT_EQ(other, before);
    char text[16];
    std::snprintf(text, sizeof text, "%.1f", 1.5);
    EXPECT_STREQ(text, "1.5");
    { const CSetLocale inner; }
    EXPECT_STREQ(ThreadSetLocale(LC_NUMERIC, nullptr), "C");
  }
  EXPECT_EQ(ThreadSetLocale(LC_ALL, nullptr), before);
  EXPECT_EQ(_configthreadlocale(0), setting);
}

}  // namespace
}  // namespace qel::test
