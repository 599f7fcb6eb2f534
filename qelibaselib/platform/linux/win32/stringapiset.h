/// @file
/// Narrow and wide text, bounded copies, text-mode streams, locale. Narrow text is UTF-8, wide text UTF-32; bytes that
/// are no UTF-8 become U+DC00 + byte and come back unharmed.
#pragma once
#include <cstdio>
#include <cwchar>

#include "qelibaselib/platform/linux/win32/windef.h"

#define CP_ACP 0u
#define CP_UTF8 65001u
#define _TRUNCATE (static_cast<std::size_t>(-1))
#define STRUNCATE 80
using errno_t = int;

extern "C" {
/// CP_ACP and CP_UTF8, flags 0.
QEL_LAYER int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR narrow,
                                         int narrowLength, LPCSTR defaultCharacter, LPBOOL usedDefault);
QEL_LAYER int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR narrow, int narrowLength, LPWSTR wide,
                                         int wideLength);

/// Modes as fopen's with t (the default) or b; + only with b. Text streams write CR LF for a line feed and read it back
/// as one; a flush writes what was buffered with one call. fileno() of a text stream is -1. A file that another handle
/// does not share is refused, but an open stream holds nobody off.
QEL_LAYER FILE* __cdecl _wfopen(const wchar_t* path, const wchar_t* mode);

QEL_LAYER errno_t __cdecl wcsncpy_s(wchar_t* target, std::size_t size, const wchar_t* source, std::size_t count);
QEL_LAYER int __cdecl _wcsnicmp(const wchar_t* first, const wchar_t* second, std::size_t count);
QEL_LAYER int __cdecl _mbsnbcmp(const unsigned char* first, const unsigned char* second, std::size_t count);
QEL_LAYER char* __cdecl _strdup(const char* text);

#define _ENABLE_PER_THREAD_LOCALE 1
#define _DISABLE_PER_THREAD_LOCALE 2
/// While enabled, a thread's setlocale calls through this layer (below) are its own.
QEL_LAYER int __cdecl _configthreadlocale(int mode);
}
