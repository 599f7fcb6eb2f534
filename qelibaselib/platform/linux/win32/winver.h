/// @file
/// Version resources of modules.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

extern "C" {
QEL_LAYER DWORD WINAPI GetFileVersionInfoSizeW(LPCWSTR file, LPDWORD handle);
QEL_LAYER BOOL WINAPI GetFileVersionInfoW(LPCWSTR file, DWORD handle, DWORD size, LPVOID block);
QEL_LAYER BOOL WINAPI VerQueryValueA(LPCVOID block, LPCSTR query, LPVOID* value, PUINT length);
}
