/// @file
/// Processes and threads: the own ones, starting and ending others; thread-local slots, sleeping, interlocked counters.
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

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF
#define CREATE_SUSPENDED 0x00000004ul
#define STILL_ACTIVE 259ul
#define TLS_OUT_OF_INDEXES 0xFFFFFFFFul

#define DLL_PROCESS_DETACH 0ul
#define DLL_PROCESS_ATTACH 1ul
#define DLL_THREAD_ATTACH 2ul
#define DLL_THREAD_DETACH 3ul

using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(LPVOID argument);

extern "C" {
QEL_LAYER HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                                     LPVOID argument, DWORD flags, LPDWORD threadId);
QEL_LAYER DWORD WINAPI ResumeThread(HANDLE thread);
QEL_LAYER BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode);
QEL_LAYER HANDLE WINAPI GetCurrentThread();
/// The kernel's thread id.
QEL_LAYER DWORD WINAPI GetCurrentThreadId();
/// Priorities are remembered and reported, not applied: an ordinary user may not raise them here.
QEL_LAYER BOOL WINAPI SetThreadPriority(HANDLE thread, int priority);
QEL_LAYER int WINAPI GetThreadPriority(HANDLE thread);
QEL_LAYER void WINAPI Sleep(DWORD ms);

/// A slot's value reaches the end of the thread only through the library's detach: there is no destructor.
QEL_LAYER DWORD WINAPI TlsAlloc();
QEL_LAYER BOOL WINAPI TlsFree(DWORD slot);
QEL_LAYER LPVOID WINAPI TlsGetValue(DWORD slot);
QEL_LAYER BOOL WINAPI TlsSetValue(DWORD slot, LPVOID value);

/// No Win32 name: what a module's DllMain is called by. Registration calls `entry` with DLL_PROCESS_ATTACH (FALSE: not
/// registered, returns FALSE). From then on threads that the layer starts attach at their start, and every thread that
/// has called TlsSetValue with a value detaches at its end, whoever started it.
using QelModuleEntry = BOOL(WINAPI*)(HINSTANCE module, DWORD reason, LPVOID reserved);
QEL_LAYER BOOL WINAPI QelRegisterModule(HINSTANCE module, QelModuleEntry entry);
/// Calls `entry` with DLL_PROCESS_DETACH on the calling thread and forgets it.
QEL_LAYER void WINAPI QelUnregisterModule(QelModuleEntry entry);
}

inline LONG InterlockedIncrement(LONG volatile* value) { return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(LONG volatile* value) { return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(LONG volatile* value, LONG exchange) {
  return __atomic_exchange_n(value, exchange, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* value, LONG exchange, LONG comparand) {
  __atomic_compare_exchange_n(value, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}
