/// @file
/// The shell's path services, on the text of a path, and the making of a chain of folders.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

extern "C" {
QEL_LAYER LPWSTR WINAPI PathCombineW(LPWSTR result, LPCWSTR folder, LPCWSTR more);
QEL_LAYER void WINAPI PathUnquoteSpacesW(LPWSTR path);
QEL_LAYER BOOL WINAPI PathRemoveFileSpecW(LPWSTR path);
QEL_LAYER LPWSTR WINAPI PathRemoveBackslashW(LPWSTR path);
QEL_LAYER LPWSTR WINAPI PathFindFileNameW(LPCWSTR path);
QEL_LAYER LPSTR WINAPI PathFindFileNameA(LPCSTR path);
/// A single "/" is a root here, like "\".
QEL_LAYER BOOL WINAPI PathIsRootW(LPCWSTR path);
QEL_LAYER int WINAPI SHCreateDirectoryExW(HWND window, LPCWSTR path, const SECURITY_ATTRIBUTES* security);
}
