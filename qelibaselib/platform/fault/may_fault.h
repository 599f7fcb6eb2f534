/// @file
/// C library functions for pointers that a caller gave. The compiler knows these functions by name as ones that never
/// throw, and then gives the calling frame no cleanups: a fault inside would skip its destructors. Under another name
/// the same function keeps them.
#pragma once
#include <cstddef>

#ifdef _WIN32
#define QEL_C_NAME(name) __asm__("_" name)
#else
#define QEL_C_NAME(name) __asm__(name)
#endif

namespace may_fault {
extern "C" {
size_t StringLength(const char* text) QEL_C_NAME("strlen");
size_t WideStringLength(const wchar_t* text) QEL_C_NAME("wcslen");
size_t StringLengthUpTo(const char* text, size_t most) QEL_C_NAME("strnlen");
void* CopyBytes(void* to, const void* from, size_t bytes) QEL_C_NAME("memcpy");
void* FillBytes(void* to, int value, size_t bytes) QEL_C_NAME("memset");
}
}  // namespace may_fault
