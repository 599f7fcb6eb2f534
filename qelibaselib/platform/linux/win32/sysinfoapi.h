/// @file
/// The machine and the system: clock, counters, memory status, processors, version, user, disks, profile.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

struct MEMORYSTATUSEX {
  DWORD dwLength, dwMemoryLoad;
  DWORDLONG ullTotalPhys, ullAvailPhys, ullTotalPageFile, ullAvailPageFile, ullTotalVirtual, ullAvailVirtual,
      ullAvailExtendedVirtual;
};
using LPMEMORYSTATUSEX = MEMORYSTATUSEX*;

struct SYSTEM_INFO {
  union {
    DWORD dwOemId;
    struct {
      WORD wProcessorArchitecture, wReserved;
    };
  };
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress, lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors, dwProcessorType, dwAllocationGranularity;
  WORD wProcessorLevel, wProcessorRevision;
};
using LPSYSTEM_INFO = SYSTEM_INFO*;

#define VER_PLATFORM_WIN32_NT 2ul
/// 284 bytes on Windows; longer here, since wide characters have four bytes. Its size field may hold either number.
struct OSVERSIONINFOEXW {
  DWORD dwOSVersionInfoSize, dwMajorVersion, dwMinorVersion, dwBuildNumber, dwPlatformId;
  WCHAR szCSDVersion[128];
  WORD wServicePackMajor, wServicePackMinor, wSuiteMask;
  BYTE wProductType, wReserved;
};

#define DRIVE_UNKNOWN 0u
#define DRIVE_NO_ROOT_DIR 1u
#define DRIVE_REMOVABLE 2u
#define DRIVE_FIXED 3u
#define DRIVE_REMOTE 4u
#define DRIVE_CDROM 5u
#define DRIVE_RAMDISK 6u

extern "C" {
QEL_LAYER void WINAPI GetLocalTime(LPSYSTEMTIME time);
QEL_LAYER DWORD WINAPI GetTickCount();
/// 10,000,000 counts a second.
QEL_LAYER BOOL WINAPI QueryPerformanceCounter(PLARGE_INTEGER count);
QEL_LAYER BOOL WINAPI QueryPerformanceFrequency(PLARGE_INTEGER frequency);

QEL_LAYER BOOL WINAPI GlobalMemoryStatusEx(LPMEMORYSTATUSEX status);
QEL_LAYER void WINAPI GetSystemInfo(LPSYSTEM_INFO information);
QEL_LAYER BOOL WINAPI GetProcessWorkingSetSize(HANDLE process, PSIZE_T minimum, PSIZE_T maximum);
QEL_LAYER BOOL WINAPI GetUserNameW(LPWSTR name, LPDWORD size);
/// The user's own file `$XDG_CONFIG_HOME/qelibaselib/win.ini` (default `~/.config`), then `/etc/qelibaselib/win.ini`:
/// sections in brackets, `key=value`. Each is read only when it is a file of the user or of root that nobody else can
/// write.
QEL_LAYER DWORD WINAPI GetProfileStringA(LPCSTR section, LPCSTR key, LPCSTR fallback, LPSTR text, DWORD size);
QEL_LAYER DWORD WINAPI GetLogicalDriveStringsA(DWORD size, LPSTR roots);
QEL_LAYER UINT WINAPI GetDriveTypeA(LPCSTR root);
QEL_LAYER BOOL WINAPI GetDiskFreeSpaceExA(LPCSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total,
                                          PULARGE_INTEGER free);
/// Rings the terminal's bell where standard error is a terminal; blocks for the duration as on Windows.
QEL_LAYER BOOL WINAPI Beep(DWORD frequency, DWORD durationMs);
}
