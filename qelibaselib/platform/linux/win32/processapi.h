/// @file
/// Processes: the own one, its environment, starting and ending another.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define PROCESS_TERMINATE 0x0001ul
#define PROCESS_QUERY_INFORMATION 0x0400ul
#define IDLE_PRIORITY_CLASS 0x40ul
#define BELOW_NORMAL_PRIORITY_CLASS 0x4000ul
#define NORMAL_PRIORITY_CLASS 0x20ul
#define ABOVE_NORMAL_PRIORITY_CLASS 0x8000ul
#define HIGH_PRIORITY_CLASS 0x80ul
#define REALTIME_PRIORITY_CLASS 0x100ul
#define STARTF_USESTDHANDLES 0x100ul

struct STARTUPINFOA {
  DWORD cb;
  LPSTR lpReserved, lpDesktop, lpTitle;
  DWORD dwX, dwY, dwXSize, dwYSize, dwXCountChars, dwYCountChars, dwFillAttribute, dwFlags;
  WORD wShowWindow, cbReserved2;
  LPBYTE lpReserved2;
  HANDLE hStdInput, hStdOutput, hStdError;
};
using LPSTARTUPINFOA = STARTUPINFOA*;
static_assert(sizeof(STARTUPINFOA) == 68);

struct PROCESS_INFORMATION {
  HANDLE hProcess, hThread;
  DWORD dwProcessId, dwThreadId;
};
using LPPROCESS_INFORMATION = PROCESS_INFORMATION*;

extern "C" {
QEL_LAYER HANDLE WINAPI GetCurrentProcess();
QEL_LAYER DWORD WINAPI GetCurrentProcessId();
QEL_LAYER BOOL WINAPI GetProcessAffinityMask(HANDLE process, PDWORD_PTR processMask, PDWORD_PTR systemMask);
/// Splits the command line by Windows' quoting rules and searches the program on PATH. Of handles, only those of
/// unnamed events that were made inheritable are inherited: under the same value, by a child that uses this layer, also
/// through a shell. The new thread's handle is another one of the process. Environment, folder, start-up flags and
/// creation flags other than 0 are refused with ERROR_INVALID_PARAMETER.
QEL_LAYER BOOL WINAPI CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                                     LPSECURITY_ATTRIBUTES threadSecurity, BOOL inheritHandles, DWORD flags,
                                     LPVOID environment, LPCSTR folder, LPSTARTUPINFOA startup,
                                     LPPROCESS_INFORMATION information);
/// Of the own process or one that CreateProcessA started. Another parent than this one sees a killed process instead of
/// the exit code.
QEL_LAYER BOOL WINAPI TerminateProcess(HANDLE process, UINT exitCode);
QEL_LAYER BOOL WINAPI GetExitCodeProcess(HANDLE process, LPDWORD exitCode);
/// TRUE while a tracer is attached.
QEL_LAYER BOOL WINAPI IsDebuggerPresent();
}
