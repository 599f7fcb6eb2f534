/// @file
/// Mappings and views, virtual memory, probes, global blocks.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define PAGE_NOACCESS 0x01ul
#define PAGE_READONLY 0x02ul
#define PAGE_READWRITE 0x04ul
#define PAGE_WRITECOPY 0x08ul
#define PAGE_EXECUTE 0x10ul
#define PAGE_EXECUTE_READ 0x20ul
#define PAGE_EXECUTE_READWRITE 0x40ul
#define PAGE_EXECUTE_WRITECOPY 0x80ul
#define PAGE_GUARD 0x100ul
#define MEM_COMMIT 0x1000ul
#define MEM_RESERVE 0x2000ul
#define MEM_DECOMMIT 0x4000ul
#define MEM_RELEASE 0x8000ul
#define MEM_FREE 0x10000ul
#define MEM_PRIVATE 0x20000ul
#define MEM_MAPPED 0x40000ul
#define MEM_IMAGE 0x1000000ul
#define FILE_MAP_COPY 0x0001ul
#define FILE_MAP_WRITE 0x0002ul
#define FILE_MAP_READ 0x0004ul
#define FILE_MAP_ALL_ACCESS 0x000F001Ful
#define GMEM_FIXED 0x0000u
#define GMEM_ZEROINIT 0x0040u

struct MEMORY_BASIC_INFORMATION {
  PVOID BaseAddress, AllocationBase;
  DWORD AllocationProtect;
  SIZE_T RegionSize;
  DWORD State, Protect, Type;
};
using PMEMORY_BASIC_INFORMATION = MEMORY_BASIC_INFORMATION*;

extern "C" {
QEL_LAYER HANDLE WINAPI CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES security, DWORD protection,
                                           DWORD sizeHigh, DWORD sizeLow, LPCWSTR name);
QEL_LAYER HANDLE WINAPI OpenFileMappingW(DWORD access, BOOL inherit, LPCWSTR name);
QEL_LAYER LPVOID WINAPI MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes);
QEL_LAYER BOOL WINAPI UnmapViewOfFile(LPCVOID address);
QEL_LAYER BOOL WINAPI FlushViewOfFile(LPCVOID address, SIZE_T bytes);

QEL_LAYER LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protection);
QEL_LAYER BOOL WINAPI VirtualFree(LPVOID address, SIZE_T size, DWORD type);
QEL_LAYER BOOL WINAPI VirtualProtect(LPVOID address, SIZE_T size, DWORD protection, PDWORD previous);
/// Answers for the whole 4 GiB. A walk in steps of the region size is answered from one reading of the memory map.
QEL_LAYER SIZE_T WINAPI VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length);
QEL_LAYER BOOL WINAPI VirtualLock(LPVOID address, SIZE_T size);
QEL_LAYER BOOL WINAPI VirtualUnlock(LPVOID address, SIZE_T size);

/// Probes every page of the range; no signal reaches the host.
QEL_LAYER BOOL WINAPI IsBadReadPtr(LPCVOID address, ULONG_PTR size);
QEL_LAYER BOOL WINAPI IsBadWritePtr(LPVOID address, ULONG_PTR size);

QEL_LAYER HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T size);
QEL_LAYER HGLOBAL WINAPI GlobalFree(HGLOBAL block);
/// Always -2 (a sound heap): the C library ends the process itself when it finds a corrupt one.
QEL_LAYER int __cdecl _heapchk();
}
#define _HEAPEMPTY (-1)
#define _HEAPOK (-2)
#define _HEAPBADBEGIN (-3)
#define _HEAPBADNODE (-4)
