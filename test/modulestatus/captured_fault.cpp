#include "test/modulestatus/captured_fault.h"

#include <cfenv>
#include <cstring>

namespace qel::test {
namespace {

struct Landing {
  void* registers[5];
  CapturedFault* fault;
  void (*whenFaulting)(CapturedFault& fault);
};
constexpr unsigned int kMaskAll = 0x1F80;
thread_local Landing* t_landing = nullptr;

// Runs on the faulting thread when the filter has let it go on.
[[noreturn]] void Land() { __builtin_longjmp(t_landing->registers, 1); }

LONG WINAPI Filter(EXCEPTION_POINTERS* pointers) {
  Landing* landing = t_landing;
  if (!landing) return EXCEPTION_CONTINUE_SEARCH;
  landing->fault->record = *pointers->ExceptionRecord;
  landing->fault->context = *pointers->ContextRecord;
  if (landing->whenFaulting) landing->whenFaulting(*landing->fault);
  CONTEXT& context = *pointers->ContextRecord;
  context.Eip = reinterpret_cast<DWORD>(&Land);
  // Below what Land goes back to. It never returns.
  context.Esp = (reinterpret_cast<DWORD>(landing->registers[2]) - 4096) & ~15u;
  context.EFlags &= ~0x400u;
  return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

__attribute__((noinline)) bool CaptureBody(CapturedFault& fault, FaultBody body, const void* argument,
                                           void (*whenFaulting)(CapturedFault& fault)) {
  Landing landing{{}, &fault, whenFaulting};
  t_landing = &landing;
  SetUnhandledExceptionFilter(&Filter);
  if (__builtin_setjmp(landing.registers) == 0) {
    body(argument);
    t_landing = nullptr;
    return false;
  }
  t_landing = nullptr;
  std::feclearexcept(FE_ALL_EXCEPT);
  __builtin_ia32_ldmxcsr(kMaskAll);
  return true;
}

}  // namespace qel::test

#define QEL_ONE_FRAME __attribute__((noipa, noinline))

QEL_ONE_FRAME int ReadThrough(const volatile int* address) { return *address; }

// What follows the calls keeps them from becoming jumps.
QEL_ONE_FRAME int CallReadThrough(const volatile int* address) { return ReadThrough(address) + 1; }

QEL_ONE_FRAME void WriteThrough(volatile int* address) { *address = 1; }

QEL_ONE_FRAME int Divide(int dividend, int divisor) { return dividend / divisor; }

QEL_ONE_FRAME void DivideTrapping(double divisor) {
  constexpr unsigned int kUnmaskZeroDivide = 0x1F80 & ~0x200u;
  const unsigned int before = __builtin_ia32_stmxcsr();
  __builtin_ia32_ldmxcsr(kUnmaskZeroDivide);
  double quotient = 1;
  asm volatile("divsd %1, %0" : "+x"(quotient) : "x"(divisor));
  __builtin_ia32_ldmxcsr(before);
}

QEL_ONE_FRAME int CallAddress(const void* address) {
  return reinterpret_cast<int (*)()>(const_cast<void*>(address))() + 1;
}

QEL_ONE_FRAME int OverflowStack(int depth) {
  volatile char room[4096];
  room[depth % 4096] = 1;
  return depth < 0 ? 0 : OverflowStack(depth + 1) + room[0];
}

QEL_ONE_FRAME int ReadWithBrokenChain(const volatile int* address) {
  *static_cast<void* volatile*>(__builtin_frame_address(0)) = reinterpret_cast<void*>(0x11);
  return ReadThrough(address) + 1;
}
