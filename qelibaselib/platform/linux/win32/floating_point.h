/// @file
/// Control words of the two floating-point units.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define _EM_INEXACT 0x00000001u
#define _EM_UNDERFLOW 0x00000002u
#define _EM_OVERFLOW 0x00000004u
#define _EM_ZERODIVIDE 0x00000008u
#define _EM_INVALID 0x00000010u
#define _EM_DENORMAL 0x00080000u
#define _MCW_EM 0x0008001Fu

extern "C" {
QEL_LAYER unsigned int __cdecl _clearfp();
/// Only the exception masks can be changed.
QEL_LAYER int __cdecl __control87_2(unsigned int value, unsigned int mask, unsigned int* x87, unsigned int* sse2);
}
