// An address that is not mapped on either target.
#pragma once
#include "qelibaselib/platform/win32.h"
#include "test/support/replace_call.h"

namespace qel::test {

inline constexpr ULONG_PTR kBadAddress = 0x18;

// Not a constant to the compiler, which would otherwise warn or worse.
inline void* BadPointer() {
  void* volatile pointer = reinterpret_cast<void*>(kBadAddress);
  return pointer;
}
__attribute__((noipa)) inline void WriteBadAddress() { *static_cast<volatile int*>(BadPointer()) = 1; }

}  // namespace qel::test

// A call of the library that faults instead of being made.
#define FAULT_IN(name)            \
  STAND_IN(name, [](auto...) {    \
    qel::test::WriteBadAddress(); \
    return qel::test::Zero{};     \
  })
