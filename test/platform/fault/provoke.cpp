#include "test/platform/fault/provoke.h"

#include <iterator>
#include <ostream>

#include "qelibaselib/platform/fault/may_fault.h"

namespace qel::test {
namespace {

volatile int g_sink;

OWN_FRAME void WriteThere(int& destroyed, void* address) {
  const Witness witness(destroyed);
  *static_cast<volatile int*>(address) = 7;
}
OWN_FRAME void ReadThere(int& destroyed, const void* address) {
  const Witness witness(destroyed);
  g_sink = *static_cast<const volatile int*>(address);
}
OWN_FRAME void CallThere(int& destroyed, void (*function)()) {
  const Witness witness(destroyed);
  function();
}
OWN_FRAME void Divide(int& destroyed, int dividend, int divisor) {
  const Witness witness(destroyed);
  g_sink = dividend / divisor;
}
// An asm statement that faults has no cleanups in its own frame.
OWN_FRAME void IllegalInstruction() { __asm__ __volatile__("ud2"); }
OWN_FRAME void DivideByZeroX87() {
  unsigned short control;
  __asm__ __volatile__("fnstcw %0" : "=m"(control));
  control &= static_cast<unsigned short>(~0x4);
  const double zero = 0, one = 1;
  double quotient;
  __asm__ __volatile__("fldcw %1\n\tfldl %2\n\tfdivl %3\n\tfwait\n\tfstpl %0"
                       : "=m"(quotient)
                       : "m"(control), "m"(one), "m"(zero));
}
OWN_FRAME void DivideByZeroSse() {
  __builtin_ia32_ldmxcsr(__builtin_ia32_stmxcsr() & ~0x200u);
  const float zero = 0;
  __asm__ __volatile__("cvtsi2ss %0, %%xmm0\n\tdivss %1, %%xmm0" : : "r"(1), "m"(zero) : "xmm0");
}

template <void (*Function)()>
OWN_FRAME void Inside(int& destroyed) {
  const Witness witness(destroyed);
  Function();
}
OWN_FRAME void StringLength(int& destroyed) {
  const Witness witness(destroyed);
  g_sink = static_cast<int>(may_fault::StringLength(static_cast<const char*>(BadPointer())));
}
OWN_FRAME void WideStringLength(int& destroyed) {
  const Witness witness(destroyed);
  g_sink = static_cast<int>(may_fault::WideStringLength(static_cast<const wchar_t*>(BadPointer())));
}
OWN_FRAME void CopyFrom(int& destroyed) {
  const Witness witness(destroyed);
  char buffer[64];
  may_fault::CopyBytes(buffer, BadPointer(), sizeof buffer);
  g_sink = buffer[5];
}
OWN_FRAME void Fill(int& destroyed) {
  const Witness witness(destroyed);
  may_fault::FillBytes(BadPointer(), 0, 64);
}

// The second witness.
template <class Function>
OWN_FRAME void Around(int& destroyed, Function function) {
  const Witness witness(destroyed);
  function(destroyed);
}
template <void (*Function)(int&)>
void Twice(int& destroyed) {
  Around(destroyed, Function);
}
void Write(int& destroyed) { WriteThere(destroyed, BadPointer()); }
void Read(int& destroyed) { ReadThere(destroyed, BadPointer()); }
void Call(int& destroyed) { CallThere(destroyed, reinterpret_cast<void (*)()>(BadPointer())); }
void DivideByZero(int& destroyed) { Divide(destroyed, 5, 0); }

constexpr ULONG_PTR kReading = 0, kWriting = 1, kAny = FaultKind::kAny;

struct FaultsInDestructor {
  int& destroyed;
  ~FaultsInDestructor() noexcept(false) { ReadThere(destroyed, BadPointer()); }
};

OWN_FRAME void NeverThrows(int& destroyed) noexcept { ReadThere(destroyed, BadPointer()); }

volatile bool g_endless = true;
OWN_FRAME int Recurse(int& destroyed, int depth) {
  volatile char filler[300];
  filler[0] = static_cast<char>(depth);
  const Witness witness(destroyed);
  if (!g_endless) return 0;
  return Recurse(destroyed, depth + 1) + filler[0];
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const FaultKind& kind) { return stream << kind.name; }

const FaultKind kFaultKinds[] = {
    {"Read", &Twice<Read>, EXCEPTION_ACCESS_VIOLATION, 2, kReading, kBadAddress},
    {"Write", &Twice<Write>, EXCEPTION_ACCESS_VIOLATION, 2, kWriting, kBadAddress},
    {"Call", &Twice<Call>, EXCEPTION_ACCESS_VIOLATION, 2, kAny, kBadAddress},
    {"IntegerDivision", &Twice<DivideByZero>, EXCEPTION_INT_DIVIDE_BY_ZERO, 0, 0, 0},
    {"IllegalInstruction", &Twice<Inside<IllegalInstruction>>, EXCEPTION_ILLEGAL_INSTRUCTION, 0, 0, 0},
    {"X87Division", &Twice<Inside<DivideByZeroX87>>, EXCEPTION_FLT_DIVIDE_BY_ZERO, 0, 0, 0},
    {"SseDivision", &Twice<Inside<DivideByZeroSse>>, EXCEPTION_FLT_DIVIDE_BY_ZERO, 0, 0, 0},
    {"StringLength", &Twice<StringLength>, EXCEPTION_ACCESS_VIOLATION, 2, kReading, kAny},
    {"WideStringLength", &Twice<WideStringLength>, EXCEPTION_ACCESS_VIOLATION, 2, kReading, kAny},
    {"CopyBytes", &Twice<CopyFrom>, EXCEPTION_ACCESS_VIOLATION, 2, kReading, kAny},
    {"FillBytes", &Twice<Fill>, EXCEPTION_ACCESS_VIOLATION, 2, kWriting, kAny},
};
const size_t kFaultKindCount = std::size(kFaultKinds);

void ReadBadAddress(int& destroyed) { ReadThere(destroyed, BadPointer()); }

bool CatchesFault() {
  int destroyed = 0;
  try {
    fault::Run([&] { ReadBadAddress(destroyed); });
  } catch (...) {
    return destroyed == 1;
  }
  return false;
}

OWN_FRAME void FaultInDestructor(int& destroyed) { const FaultsInDestructor faults{destroyed}; }

OWN_FRAME void FaultInDestructorWhileUnwinding(int& destroyed) {
  const FaultsInDestructor faults{destroyed};
  ReadThere(destroyed, BadPointer());
}

OWN_FRAME void FaultInNoexcept(int& destroyed) {
  const Witness witness(destroyed);
  NeverThrows(destroyed);
}

OWN_FRAME void FaultWithSmashedFrame() {
  auto* frame = static_cast<volatile ULONG_PTR*>(__builtin_frame_address(0));
  frame[0] = 0x10;        // the caller's EBP
  frame[1] = 0x11223344;  // the return address
  *static_cast<volatile int*>(BadPointer()) = 1;
}

OWN_FRAME void FaultWithDirectionFlag(int& destroyed) {
  const Witness witness(destroyed);
  __asm__ __volatile__("std\n\tmovl (%0), %%eax\n\tcld" : : "r"(BadPointer()) : "eax");
}

OWN_FRAME void OverflowStack(int& destroyed) { g_sink = Recurse(destroyed, 0); }

}  // namespace qel::test
