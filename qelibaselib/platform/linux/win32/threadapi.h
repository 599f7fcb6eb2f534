/// @file
/// Threads, thread-local slots, sleeping, interlocked counters.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

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
