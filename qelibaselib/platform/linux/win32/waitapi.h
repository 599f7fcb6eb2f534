/// @file
/// Waiting for one and for several objects.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define WAIT_OBJECT_0 0ul
#define WAIT_ABANDONED 0x80ul
#define WAIT_ABANDONED_0 0x80ul
#define WAIT_TIMEOUT 258ul
#define WAIT_FAILED 0xFFFFFFFFul
#define MAXIMUM_WAIT_OBJECTS 64

extern "C" {
QEL_LAYER DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD timeoutMs);
/// All kinds may be mixed. A change that another process makes is seen within 5 ms when there are several objects.
QEL_LAYER DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD timeoutMs);
}
