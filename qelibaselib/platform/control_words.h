/// @file
/// The exception masks and flags of the x87 unit and of SSE2 in the bits of <float.h>; both targets.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace control_words {

// Both units have the same six bits in the same order.
struct Bit {
  unsigned int abstract, machine;
};
inline constexpr Bit kBits[] = {{_EM_INVALID, 0x01},  {_EM_DENORMAL, 0x02},  {_EM_ZERODIVIDE, 0x04},
                                {_EM_OVERFLOW, 0x08}, {_EM_UNDERFLOW, 0x10}, {_EM_INEXACT, 0x20}};
inline constexpr unsigned int kMachineBits = 0x3F;
inline constexpr unsigned int kMxcsrMaskShift = 7;

inline unsigned int ToAbstract(unsigned int machine) {
  unsigned int abstract = 0;
  for (const Bit& bit : kBits)
    if (machine & bit.machine) abstract |= bit.abstract;
  return abstract;
}
inline unsigned int ToMachine(unsigned int abstract) {
  unsigned int machine = 0;
  for (const Bit& bit : kBits)
    if (abstract & bit.abstract) machine |= bit.machine;
  return machine;
}

inline unsigned int ReadX87() {
  unsigned short control;
  __asm__ __volatile__("fnstcw %0" : "=m"(control));
  return control;
}
inline void WriteX87(unsigned int value) {
  const auto control = static_cast<unsigned short>(value);
  __asm__ __volatile__("fldcw %0" : : "m"(control));
}

/// The abstract masks of the x87 unit after those in `mask` have been set to `value`.
inline unsigned int ChangeX87(unsigned int value, unsigned int mask) {
  const unsigned int changed = ToMachine(mask);
  if (changed) WriteX87((ReadX87() & ~changed) | (ToMachine(value) & changed));
  return ToAbstract(ReadX87());
}
/// The same for SSE2.
inline unsigned int ChangeSse2(unsigned int value, unsigned int mask) {
  const unsigned int changed = ToMachine(mask) << kMxcsrMaskShift;
  const unsigned int wanted = ToMachine(value) << kMxcsrMaskShift;
  if (changed) __builtin_ia32_ldmxcsr((__builtin_ia32_stmxcsr() & ~changed) | (wanted & changed));
  return ToAbstract(__builtin_ia32_stmxcsr() >> kMxcsrMaskShift);
}

}  // namespace control_words
