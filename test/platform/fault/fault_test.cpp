// Faults under fault::Run, the same on both targets.
#include "qelibaselib/platform/fault/fault.h"

#include <exception>

#include "test/platform/fault/provoke.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

class TranslatorScope {
 public:
  explicit TranslatorScope(fault::Translator translator) : previous_(fault::SetTranslator(translator)) {}
  TranslatorScope(const TranslatorScope&) = delete;
  TranslatorScope& operator=(const TranslatorScope&) = delete;
  ~TranslatorScope() { fault::SetTranslator(previous_); }

 private:
  fault::Translator previous_;
};

struct FloatingPointWords {
  unsigned short x87Control, x87Status;
  unsigned int mxcsr;
};
FloatingPointWords ReadFloatingPoint() {
  FloatingPointWords words;
  __asm__ __volatile__("fnstcw %0\n\tfnstsw %1" : "=m"(words.x87Control), "=m"(words.x87Status));
  words.mxcsr = __builtin_ia32_stmxcsr();
  return words;
}
void MaskFloatingPoint() {
  const unsigned short control = 0x37F;
  __asm__ __volatile__("fnclex\n\tfldcw %0" : : "m"(control));
  __builtin_ia32_ldmxcsr(0x1F80);
}

// What a body ends in.
struct Outcome {
  enum { kNothing, kStructured, kOther } clause = kNothing;
  CSE exception{};
};
template <class Body>
Outcome RunCaught(Body&& body) {
  Outcome outcome;
  try {
    fault::Run(body);
  } catch (const CSE& exception) {
    outcome.clause = Outcome::kStructured;
    outcome.exception = exception;
  } catch (...) {
    outcome.clause = Outcome::kOther;
  }
  return outcome;
}

class FaultOfKind : public testing::TestWithParam<FaultKind> {
 protected:
  ~FaultOfKind() override { MaskFloatingPoint(); }
};

TEST_P(FaultOfKind, IsThrownFromItsPlace) {
  const TranslatorScope translator(&fault::ThrowCse);
  const FaultKind& kind = GetParam();
  for (int round = 0; round < 2; ++round) {
    int destroyed = 0;
    const Outcome outcome = RunCaught([&] { kind.provoke(destroyed); });
    ASSERT_EQ(outcome.clause, Outcome::kStructured);
    EXPECT_EQ(destroyed, 2);
    const EXCEPTION_RECORD& record = outcome.exception.record;
    constexpr DWORD kMultipleTraps = 0xC00002B5;  // Windows does not say which one SSE raised
    EXPECT_EQ(record.ExceptionCode == kMultipleTraps ? EXCEPTION_FLT_DIVIDE_BY_ZERO : record.ExceptionCode, kind.code);
    EXPECT_EQ(record.ExceptionFlags, 0u);
    EXPECT_EQ(record.ExceptionRecord, nullptr);
    const CONTEXT& context = outcome.exception.context;
    const bool x87 = std::string(kind.name) == "X87Division";  // traps at the next instruction of the unit
    EXPECT_EQ(reinterpret_cast<DWORD>(record.ExceptionAddress), x87 ? context.FloatSave.ErrorOffset : context.Eip);
    EXPECT_GE(record.NumberParameters, kind.parameters);
    if (kind.parameters < 2) continue;
    if (kind.access != FaultKind::kAny) {
      EXPECT_EQ(record.ExceptionInformation[0], kind.access);
    }
    if (kind.address != FaultKind::kAny) {
      EXPECT_EQ(record.ExceptionInformation[1], kind.address);
    }
  }
}

TEST_P(FaultOfKind, WithoutTranslatorIsForCatchAllOnly) {
  const TranslatorScope translator(nullptr);
  int destroyed = 0;
  EXPECT_EQ(RunCaught([&] { GetParam().provoke(destroyed); }).clause, Outcome::kOther);
  EXPECT_EQ(destroyed, 2);
}

INSTANTIATE_TEST_SUITE_P(All, FaultOfKind, testing::ValuesIn(kFaultKinds, kFaultKinds + kFaultKindCount),
                         [](const auto& info) { return info.param.name; });

class Fault : public testing::Test {
 private:
  const TranslatorScope translator_{&fault::ThrowCse};
};

TEST_F(Fault, ContextHoldsTheRegistersOfTheFault) {
  const Outcome outcome = RunCaught([] {
    __asm__ __volatile__("movl $0x11111111, %%eax\n\tmovl $0x22222222, %%ecx\n\tmovl $0x33333333, %%edx\n\tud2"
                         :
                         :
                         : "eax", "ecx", "edx");
  });
  ASSERT_EQ(outcome.clause, Outcome::kStructured);
  const CONTEXT& context = outcome.exception.context;
  EXPECT_EQ(context.Eax, 0x11111111u);
  EXPECT_EQ(context.Ecx, 0x22222222u);
  EXPECT_EQ(context.Edx, 0x33333333u);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const void*>(context.Eip), "\x0F\x0B", 2), 0);
  const auto here = reinterpret_cast<DWORD>(__builtin_frame_address(0));
  EXPECT_LT(context.Esp, here);
  EXPECT_GT(context.Esp, here - 0x10000);
  EXPECT_EQ(context.FloatSave.ControlWord & 0xFFFF, ReadFloatingPoint().x87Control);
  DWORD mxcsr;
  std::memcpy(&mxcsr, context.ExtendedRegisters + 24, sizeof mxcsr);
  EXPECT_EQ(mxcsr & 0xFFC0, ReadFloatingPoint().mxcsr & 0xFFC0);
}

// The trap must not come again with the next floating-point instruction; whether it may is for the clause to say.
TEST_F(Fault, FloatingPointTrapLeavesTheMasksAndNothingPending) {
  for (size_t i = 0; i < kFaultKindCount; ++i) {
    if (kFaultKinds[i].code != EXCEPTION_FLT_DIVIDE_BY_ZERO) continue;
    SCOPED_TRACE(kFaultKinds[i].name);
    int destroyed = 0;
    RunCaught([&] { kFaultKinds[i].provoke(destroyed); });
    const FloatingPointWords words = ReadFloatingPoint();
    EXPECT_EQ(words.x87Status, 0);
    EXPECT_EQ(words.mxcsr & 0x3F, 0u);
    const bool x87 = kFaultKinds[i].name[0] == 'X';
    EXPECT_EQ((words.x87Control & 4) == 0, x87);
    EXPECT_EQ((words.mxcsr & 0x200) == 0, !x87);
    MaskFloatingPoint();
  }
}

// In a destructor while another fault is unwound, the second one replaces the first and cannot leave the destructor.
TEST_F(Fault, InDestructorOrNoexceptIsCaughtToo) {
  for (const auto provoke : {&FaultInDestructor, &FaultInNoexcept, &FaultInDestructorWhileUnwinding}) {
    for (int round = 0; round < 3; ++round) {
      int destroyed = 0;
      EXPECT_EQ(RunCaught([&] { provoke(destroyed); }).clause, Outcome::kStructured);
      EXPECT_EQ(std::uncaught_exceptions(), 0);
    }
  }
}

TEST_F(Fault, WithDirectionFlagSetIsCaughtWithItClear) {
  int destroyed = 0;
  EXPECT_EQ(RunCaught([&] { FaultWithDirectionFlag(destroyed); }).clause, Outcome::kStructured);
  DWORD flags;
  __asm__ __volatile__("pushfl\n\tpopl %0" : "=r"(flags));
  EXPECT_EQ(flags & 0x400, 0u);
}

TEST_F(Fault, WithSmashedFrameEndsInTheGuard) {
  SKIP_UNDER_ASAN();
  for (int round = 0; round < 2; ++round) {
    int destroyed = 0;
    const Outcome outcome = RunCaught([&] {
      const Witness witness(destroyed);
      FaultWithSmashedFrame();
    });
    EXPECT_EQ(outcome.clause, Outcome::kStructured);
    EXPECT_EQ(outcome.exception.record.ExceptionCode, EXCEPTION_ACCESS_VIOLATION);
  }
}

TEST_F(Fault, StackOverflowUnwindsAndCanHappenAgain) {
  SKIP_UNDER_ASAN();
  for (int round = 0; round < 3; ++round) {
    int destroyed = 0;
    const Outcome outcome = RunCaught([&] { OverflowStack(destroyed); });
    ASSERT_EQ(outcome.clause, Outcome::kStructured);
    EXPECT_EQ(outcome.exception.record.ExceptionCode, EXCEPTION_STACK_OVERFLOW);
    EXPECT_EQ(std::uncaught_exceptions(), 0);
  }
}

TEST_F(Fault, EndsInTheInnermostGuardAndTheNextOneInTheOuter) {
  int destroyed = 0;
  int inner = 0;
  const Outcome outcome = RunCaught([&] {
    const Witness witness(destroyed);
    inner = RunCaught([&] { ReadBadAddress(destroyed); }).clause;
    ReadBadAddress(destroyed);
  });
  EXPECT_EQ(inner, Outcome::kStructured);
  EXPECT_EQ(outcome.clause, Outcome::kStructured);
  EXPECT_EQ(destroyed, 3);
}

// A guard in a destructor has its own exception while another one is in flight.
TEST_F(Fault, InGuardOfADestructorLeavesTheFlyingException) {
  struct Guards {
    int& clause;
    ~Guards() {
      clause = RunCaught([] {
                 int destroyed = 0;
                 ReadBadAddress(destroyed);
               }).clause;
    }
  };
  int inner = 0;
  int inFlight = -1;
  std::string caught;
  fault::Run([&] {
    try {
      const Guards guards{inner};
      throw std::string("first");
    } catch (const std::string& text) {
      caught = text;
      inFlight = std::uncaught_exceptions();
    }
  });
  EXPECT_EQ(inner, Outcome::kStructured);
  EXPECT_EQ(caught, "first");
  EXPECT_EQ(inFlight, 0);
}

TEST_F(Fault, ManyInARow) {
  constexpr int kFaults = 20000;
  int destroyed = 0, caught = 0;
  for (int i = 0; i < kFaults; ++i)
    caught += RunCaught([&] { ReadBadAddress(destroyed); }).clause == Outcome::kStructured;
  EXPECT_EQ(caught, kFaults);
  EXPECT_EQ(destroyed, kFaults);
}

// A thread starts without a translator, and its guards do not meet those of other threads.
TEST(FaultOnThreads, EachThreadHasItsOwnGuardsAndTranslator) {
  constexpr int kFaults = 500;
  int structured[8] = {}, other[8] = {};
  OnThreads(8, [&](int i) {
    if (i % 2 == 1) fault::SetTranslator(&fault::ThrowCse);
    int destroyed = 0;
    for (int k = 0; k < kFaults; ++k) {
      const Outcome outcome = RunCaught([&] { ReadBadAddress(destroyed); });
      structured[i] += outcome.clause == Outcome::kStructured;
      other[i] += outcome.clause == Outcome::kOther;
    }
  });
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(structured[i], i % 2 == 1 ? kFaults : 0);
    EXPECT_EQ(other[i], i % 2 == 1 ? 0 : kFaults);
  }
}

TEST(FaultOnThreads, StackOverflowOnEach) {
  SKIP_UNDER_ASAN();
  std::atomic<int> overflows{0};
  OnThreads(4, [&](int) {
    const TranslatorScope translator(&fault::ThrowCse);
    for (int round = 0; round < 2; ++round) {
      int destroyed = 0;
      const Outcome outcome = RunCaught([&] { OverflowStack(destroyed); });
      overflows += outcome.exception.record.ExceptionCode == EXCEPTION_STACK_OVERFLOW;
    }
  });
  EXPECT_EQ(overflows, 8);
}

// No exception may cross the end of a parallel region: each thread of it has its guard.
TEST(FaultOnThreads, InParallelRegions) {
  constexpr int kRegions = 20, kThreads = 4;
  int caught = 0;
  for (int i = 0; i < kRegions; ++i) {
#pragma omp parallel num_threads(kThreads) reduction(+ : caught)
    {
      const TranslatorScope translator(&fault::ThrowCse);
      int destroyed = 0;
      const Outcome outcome = RunCaught([&] { ReadBadAddress(destroyed); });
      caught += outcome.clause == Outcome::kStructured && destroyed == 1;
#pragma omp barrier
    }
  }
  EXPECT_EQ(caught, kRegions * kThreads);
}

}  // namespace
}  // namespace qel::test
