/// @file
/// Narrow and wide text. Narrow text is UTF-8, wide text UTF-32; bytes that are no UTF-8 become U+DC00 + byte and come
/// back unharmed.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define CP_ACP 0u
#define CP_UTF8 65001u

extern "C" {
/// CP_ACP and CP_UTF8, flags 0.
QEL_LAYER int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR narrow,
                                         int narrowLength, LPCSTR defaultCharacter, LPBOOL usedDefault);
QEL_LAYER int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR narrow, int narrowLength, LPWSTR wide,
                                         int wideLength);
}
