// A fault of this program with the record and context that a host would have, and the program going on.
//
//   CapturedFault fault;
//   ASSERT_TRUE(Capture(fault, [] { ReadThrough(nullptr); }));
//
// Works by the process's unhandled-exception filter, so the body must not stand in a guard of the library.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::test {

struct CapturedFault {
  EXCEPTION_RECORD record;
  CONTEXT context;
};

using FaultBody = void (*)(const void* argument);
// True when the body faulted. What `whenFaulting` does happens in the filter itself, on whatever stack that has.
bool CaptureBody(CapturedFault& fault, FaultBody body, const void* argument,
                 void (*whenFaulting)(CapturedFault& fault) = nullptr);

template <class Body>
bool Capture(CapturedFault& fault, const Body& body, void (*whenFaulting)(CapturedFault& fault) = nullptr) {
  return CaptureBody(
      fault, [](const void* callable) { (*static_cast<const Body*>(callable))(); }, &body, whenFaulting);
}

}  // namespace qel::test

// Faults with a known place: functions of their own with a frame, C names and one instruction that can fault.
extern "C" {
int ReadThrough(const volatile int* address);
int CallReadThrough(const volatile int* address);
void WriteThrough(volatile int* address);
int Divide(int dividend, int divisor);
void DivideTrapping(double divisor);
int CallAddress(const void* address);
int OverflowStack(int depth);
// Reads through a bad address with the caller's saved frame pointer overwritten.
int ReadWithBrokenChain(const volatile int* address);
}
