#include "qelibaselib/platform/control_words.h"
#include "qelibaselib/platform/linux/win32/crt.h"

extern "C" unsigned int _clearfp() {
  unsigned short status;
  __asm__ __volatile__("fnstsw %0\n\tfnclex" : "=m"(status));
  const unsigned int mxcsr = __builtin_ia32_stmxcsr();
  __builtin_ia32_ldmxcsr(mxcsr & ~control_words::kMachineBits);
  return control_words::ToAbstract((status | mxcsr) & control_words::kMachineBits);
}

extern "C" int __control87_2(unsigned int value, unsigned int mask, unsigned int* x87, unsigned int* sse2) {
  if (x87) *x87 = control_words::ChangeX87(value, mask);
  if (sse2) *sse2 = control_words::ChangeSse2(value, mask);
  return 1;
}
