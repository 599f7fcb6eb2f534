/// @file
/// Handles: closing, duplicating, counting.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define DUPLICATE_CLOSE_SOURCE 1ul
#define DUPLICATE_SAME_ACCESS 2ul

extern "C" {
/// The pseudo handles -1 and -2 are accepted and left alone.
QEL_LAYER BOOL WINAPI CloseHandle(HANDLE handle);
/// Only within this process; access is kept as it is (DUPLICATE_SAME_ACCESS must be given).
QEL_LAYER BOOL WINAPI DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, LPHANDLE target,
                                      DWORD access, BOOL inherit, DWORD options);
/// Counts the open handles, find handles included, views and blocks that the layer has handed out in this process;
/// only of the own process.
QEL_LAYER BOOL WINAPI GetProcessHandleCount(HANDLE process, PDWORD count);
}
