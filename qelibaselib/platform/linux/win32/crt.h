/// @file
/// What the C runtime of Windows offers and the system's C library does not: text-mode streams, bounded copies, locales
/// of threads, control words of the two floating-point units.
#pragma once
#include <cstddef>
#include <cstdio>
#include <cwchar>

#include "qelibaselib/platform/linux/win32/windef.h"

#define _TRUNCATE (static_cast<std::size_t>(-1))
#define STRUNCATE 80
using errno_t = int;

extern "C" {
/// Modes as fopen's with t (the default) or b; + only with b. Text streams write CR LF for a line feed and read it back
/// as one; a flush writes what was buffered with one call. fileno() of the stream is -1. A file that another handle
/// does not share is refused, but an open stream holds nobody off.
QEL_LAYER FILE* __cdecl _wfopen(const wchar_t* path, const wchar_t* mode);

QEL_LAYER errno_t __cdecl wcsncpy_s(wchar_t* target, std::size_t size, const wchar_t* source, std::size_t count);
QEL_LAYER int __cdecl _wcsnicmp(const wchar_t* first, const wchar_t* second, std::size_t count);
QEL_LAYER int __cdecl _mbsnbcmp(const unsigned char* first, const unsigned char* second, std::size_t count);
QEL_LAYER char* __cdecl _strdup(const char* text);

#define _ENABLE_PER_THREAD_LOCALE 1
#define _DISABLE_PER_THREAD_LOCALE 2
/// Whether ThreadSetLocale (qelibaselib/platform/thread_locale.h) of this thread concerns the thread alone. Returns the
/// setting so far, which is "disabled" at a thread's start, and sets another one unless `setting` is 0; -1 for a value
/// that is neither.
QEL_LAYER int __cdecl _configthreadlocale(int setting);
}

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
