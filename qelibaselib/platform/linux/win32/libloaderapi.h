/// @file
/// Loaded modules, their names and entry points.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

struct MODULEINFO {
  LPVOID lpBaseOfDll;
  DWORD SizeOfImage;
  LPVOID EntryPoint;
};
using LPMODULEINFO = MODULEINFO*;

extern "C" {
/// "ntdll.dll" is known and offers "RtlGetVersion"; every other name is missing (ERROR_MOD_NOT_FOUND).
QEL_LAYER HMODULE WINAPI LoadLibraryA(LPCSTR name);
QEL_LAYER FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);
QEL_LAYER BOOL WINAPI FreeLibrary(HMODULE module);
/// NULL, the program's own name or "ntdll.dll"; every other name is missing (ERROR_MOD_NOT_FOUND).
QEL_LAYER HMODULE WINAPI GetModuleHandleA(LPCSTR name);
/// A module is known by the address of its first byte, NULL being the program. A program that was replaced while it
/// runs keeps the name that it had at its start.
QEL_LAYER DWORD WINAPI GetModuleFileNameA(HMODULE module, LPSTR name, DWORD size);
QEL_LAYER DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR name, DWORD size);
QEL_LAYER BOOL WINAPI GetModuleInformation(HANDLE process, HMODULE module, LPMODULEINFO information, DWORD size);
}
