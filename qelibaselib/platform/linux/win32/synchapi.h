/// @file
/// Events, mutexes, semaphores and waitable timers, and waiting for them. Named objects are the user's and the login
/// session's own.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define SYNCHRONIZE 0x00100000ul
#define EVENT_MODIFY_STATE 0x0002ul
#define EVENT_ALL_ACCESS 0x1F0003ul
#define MUTEX_ALL_ACCESS 0x1F0001ul
#define SEMAPHORE_ALL_ACCESS 0x1F0003ul

using PTIMERAPCROUTINE = void(CALLBACK*)(LPVOID argument, DWORD timeLow, DWORD timeHigh);

extern "C" {
/// Security descriptors are not read: every object belongs to the user alone. The same holds for all objects here.
/// Only an unnamed event can be inherited by a process that CreateProcessA starts; for others the wish counts for
/// nothing.
QEL_LAYER HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initialState, LPCWSTR name);
QEL_LAYER HANDLE WINAPI OpenEventW(DWORD access, BOOL inherit, LPCWSTR name);
QEL_LAYER BOOL WINAPI SetEvent(HANDLE event);
QEL_LAYER BOOL WINAPI ResetEvent(HANDLE event);

/// A well-formed name always gives a mutex: where shared memory is missing, full or refused it is one of this process
/// alone.
QEL_LAYER HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES security, BOOL initialOwner, LPCWSTR name);
QEL_LAYER HANDLE WINAPI OpenMutexW(DWORD access, BOOL inherit, LPCWSTR name);
QEL_LAYER BOOL WINAPI ReleaseMutex(HANDLE mutex);

QEL_LAYER HANDLE WINAPI CreateSemaphoreW(LPSECURITY_ATTRIBUTES security, LONG initialCount, LONG maximumCount,
                                         LPCWSTR name);
QEL_LAYER BOOL WINAPI ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LPLONG previousCount);

/// Names of 260 characters or more fail with ERROR_FILENAME_EXCED_RANGE.
QEL_LAYER HANDLE WINAPI CreateWaitableTimerA(LPSECURITY_ATTRIBUTES security, BOOL manualReset, LPCSTR name);
/// Completion routines and resuming are refused with ERROR_NOT_SUPPORTED.
QEL_LAYER BOOL WINAPI SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* dueTime, LONG periodMs,
                                       PTIMERAPCROUTINE completion, LPVOID argument, BOOL resume);
QEL_LAYER BOOL WINAPI CancelWaitableTimer(HANDLE timer);
}

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
