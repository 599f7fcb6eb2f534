/// @file
/// The exception report: what the process was doing when it faulted, as text for support.
///
/// A host reports the faults of its own code from a filter that it sets with SetUnhandledExceptionFilter:
///
///     LONG WINAPI WriteReport(EXCEPTION_POINTERS* fault) {
///       VemoExceptLogOut(L"viewer", "unhandled fault", fault->ExceptionRecord, fault->ContextRecord, __LINE__,
///                        __FILE__);
///       return EXCEPTION_EXECUTE_HANDLER;  // the process ends now
///     }
///
/// Every line is flushed as it is written, so a report that a second fault cuts short still shows what came before.
/// The functions keep faults of their own to themselves: a line in the module-status error channel tells of them.
#pragma once
#include <stdio.h>

#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Appends a report to "VemoExceptLogOut_4DE2C31F.txt" in the log folder, one report at a time for all processes of the
/// user. Also leaves a mark in the assertion channel. A mutex that is not had within 60 s or a file that cannot be
/// opened costs the report, never the caller.
/// @param title,message  what the report is headed with; either may be null.
/// @param record,context the fault; without them the report says so, and walks no stack.
/// @param line,sourceFile where the fault was caught; only the file's name without its folder is printed. May be null.
/// @return the answer of the heap check at the end: -2 when the heap is sound.
QEL_API int VemoExceptLogOut(const wchar_t* title, const char* message, const EXCEPTION_RECORD* record,
                             const CONTEXT* context, int line, const char* sourceFile);

/// Writes the same report to an open stream, without a lock. Counts the report. `processId` is not used: the report
/// asks the system.
/// @return as VemoExceptLogOut; -2 when the report itself faulted.
QEL_API int ExceptLogOut(FILE* stream, const wchar_t* title, const char* message, const EXCEPTION_RECORD* record,
                         const CONTEXT* context, int line, const char* sourceFile, HANDLE process, DWORD processId,
                         HANDLE thread);

/// For use as a filter expression: hands the process to the debugger that the system profile registers
/// ("AeDebug"/"Debugger") and waits, without a limit, until it signals that it is attached or ends. The registered
/// command is a format of at most two numbers, the process id and the handle of the event to signal.
/// @return EXCEPTION_CONTINUE_EXECUTION when a debugger was started and has signalled; EXCEPTION_CONTINUE_SEARCH when
///         one is attached already, none is registered, none could be started or it ended without a signal.
QEL_API LONG AeDebuggerUnhandledExceptionFilter();

/// The process priority class that corresponds to the calling thread's priority; NORMAL_PRIORITY_CLASS for one that
/// corresponds to none.
QEL_API DWORD VemoThreadPriToProcPri();
QEL_FUNCTIONS_END
