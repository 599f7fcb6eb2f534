/// @file
/// The basic Win32 types as they are on 32-bit x86, so that a host's source means the same on both targets. layouts.cpp
/// holds the records to their sizes there.
#pragma once
#include <cstddef>
#include <cstdint>
#include <type_traits>

#define WINAPI
#define CALLBACK
#define APIENTRY
#define __stdcall
#define __cdecl
#define VOID void
#define CONST const

/// Marks what libQelWin32.so hands out; everything else in it is hidden.
#define QEL_LAYER __attribute__((visibility("default")))

using BOOL = int;
using INT = int;
using UINT = unsigned int;
using BYTE = unsigned char;
using WORD = unsigned short;
using SHORT = short;
// Of 32 bits everywhere: the types that Windows has where `long` is one of them.
using LONG = std::conditional_t<sizeof(long) == 4, long, int>;
using ULONG = std::conditional_t<sizeof(long) == 4, unsigned long, unsigned int>;
using DWORD = ULONG;
using LONGLONG = long long;
using ULONGLONG = unsigned long long;
using DWORD64 = unsigned long long;
using DWORDLONG = unsigned long long;
using LONG_PTR = long;
using ULONG_PTR = unsigned long;
using DWORD_PTR = unsigned long;
using SIZE_T = unsigned long;
using CHAR = char;
using WCHAR = wchar_t;
using PVOID = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPBYTE = BYTE*;
using PDWORD = DWORD*;
using LPDWORD = DWORD*;
using PLONG = LONG*;
using LPLONG = LONG*;
using PBOOL = BOOL*;
using LPBOOL = BOOL*;
using PUINT = UINT*;
using PDWORD_PTR = DWORD_PTR*;
using PSIZE_T = SIZE_T*;
using LPSTR = char*;
using LPCSTR = const char*;
using PCSTR = const char*;
using LPWSTR = wchar_t*;
using PWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;
using PCWSTR = const wchar_t*;
using HANDLE = void*;
using PHANDLE = HANDLE*;
using LPHANDLE = HANDLE*;
using HMODULE = struct HINSTANCE__*;
using HINSTANCE = HMODULE;
using HGLOBAL = HANDLE;
using HLOCAL = HANDLE;
struct HWND__;
using HWND = HWND__*;
using FARPROC = int (*)();
using NTSTATUS = LONG;

static_assert(sizeof(DWORD) == 4 && sizeof(SIZE_T) == sizeof(void*) && sizeof(wchar_t) == 4);

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif
#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFul
#define MAXDWORD 0xFFFFFFFFul
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))
#define UNREFERENCED_PARAMETER(x) (static_cast<void>(x))

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  };
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};
union ULARGE_INTEGER {
  struct {
    DWORD LowPart;
    DWORD HighPart;
  };
  struct {
    DWORD LowPart;
    DWORD HighPart;
  } u;
  ULONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;
using PULARGE_INTEGER = ULARGE_INTEGER*;

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
using LPFILETIME = FILETIME*;

struct SYSTEMTIME {
  WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME*;

using INT_PTR = std::intptr_t;
using UINT_PTR = std::uintptr_t;
