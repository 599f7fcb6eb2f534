// Names of the C runtime that this one lacks.
#include "qelibaselib/platform/control_words.h"

extern "C" int __cdecl __control87_2(unsigned int value, unsigned int mask, unsigned int* x87, unsigned int* sse2) {
  if (x87) *x87 = control_words::ChangeX87(value, mask);
  if (sse2) *sse2 = control_words::ChangeSse2(value, mask);
  return 1;
}
