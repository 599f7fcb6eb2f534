/// @file
/// The system's headers, and the C runtime names that MinGW lacks (qelibaselib/platform/windows/crt_names.cpp).
#pragma once
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// windows.h comes first
#include <dbghelp.h>
#include <float.h>
#include <malloc.h>
#include <mbstring.h>
#include <psapi.h>
#include <shlwapi.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>
#include <winver.h>

#ifdef __cplusplus
extern "C" {
#endif
/// As <shlobj.h> declares it, which takes as long to read as all others together.
DECLSPEC_IMPORT int WINAPI SHCreateDirectoryExW(HWND window, LPCWSTR path, const SECURITY_ATTRIBUTES* security);
/// Reads (mask 0) or changes the exception masks of the x87 unit and of SSE2; the words after the change go to the
/// pointers that are not null. Returns 1.
int __cdecl __control87_2(unsigned int value, unsigned int mask, unsigned int* x87, unsigned int* sse2);
#ifdef __cplusplus
}
#endif

#ifdef QEL_BUILD
extern "C" {
/// RaiseException, except that C++ handlers take what is raised, with all destructors run.
void WINAPI QelRaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments);
}
#define RaiseException QelRaiseException
#endif
