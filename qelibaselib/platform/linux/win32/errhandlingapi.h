/// @file
/// Exception records and contexts, raising, the unhandled-exception filter, the thread's translator.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

struct FLOATING_SAVE_AREA {
  DWORD ControlWord, StatusWord, TagWord, ErrorOffset, ErrorSelector, DataOffset, DataSelector;
  BYTE RegisterArea[80];
  DWORD Cr0NpxState;
};
struct CONTEXT {
  DWORD ContextFlags, Dr0, Dr1, Dr2, Dr3, Dr6, Dr7;
  FLOATING_SAVE_AREA FloatSave;
  DWORD SegGs, SegFs, SegEs, SegDs, Edi, Esi, Ebx, Edx, Ecx, Eax, Ebp, Eip, SegCs, EFlags, Esp, SegSs;
  BYTE ExtendedRegisters[512];
};
using PCONTEXT = CONTEXT*;
#define EXCEPTION_MAXIMUM_PARAMETERS 15
struct EXCEPTION_RECORD {
  DWORD ExceptionCode, ExceptionFlags;
  EXCEPTION_RECORD* ExceptionRecord;
  PVOID ExceptionAddress;
  DWORD NumberParameters;
  ULONG_PTR ExceptionInformation[EXCEPTION_MAXIMUM_PARAMETERS];
};
using PEXCEPTION_RECORD = EXCEPTION_RECORD*;
struct EXCEPTION_POINTERS {
  PEXCEPTION_RECORD ExceptionRecord;
  PCONTEXT ContextRecord;
};
using PEXCEPTION_POINTERS = EXCEPTION_POINTERS*;

#define CONTEXT_CONTROL 0x00010001ul
#define CONTEXT_INTEGER 0x00010002ul
#define CONTEXT_SEGMENTS 0x00010004ul
#define CONTEXT_FLOATING_POINT 0x00010008ul
#define CONTEXT_DEBUG_REGISTERS 0x00010010ul
#define CONTEXT_EXTENDED_REGISTERS 0x00010020ul
#define CONTEXT_FULL (CONTEXT_CONTROL | CONTEXT_INTEGER | CONTEXT_SEGMENTS)

#define EXCEPTION_ACCESS_VIOLATION 0xC0000005ul
#define EXCEPTION_IN_PAGE_ERROR 0xC0000006ul
#define EXCEPTION_DATATYPE_MISALIGNMENT 0x80000002ul
#define EXCEPTION_BREAKPOINT 0x80000003ul
#define EXCEPTION_SINGLE_STEP 0x80000004ul
#define EXCEPTION_ILLEGAL_INSTRUCTION 0xC000001Dul
#define EXCEPTION_NONCONTINUABLE_EXCEPTION 0xC0000025ul
#define EXCEPTION_ARRAY_BOUNDS_EXCEEDED 0xC000008Cul
#define EXCEPTION_FLT_DENORMAL_OPERAND 0xC000008Dul
#define EXCEPTION_FLT_DIVIDE_BY_ZERO 0xC000008Eul
#define EXCEPTION_FLT_INEXACT_RESULT 0xC000008Ful
#define EXCEPTION_FLT_INVALID_OPERATION 0xC0000090ul
#define EXCEPTION_FLT_OVERFLOW 0xC0000091ul
#define EXCEPTION_FLT_STACK_CHECK 0xC0000092ul
#define EXCEPTION_FLT_UNDERFLOW 0xC0000093ul
#define EXCEPTION_INT_DIVIDE_BY_ZERO 0xC0000094ul
#define EXCEPTION_INT_OVERFLOW 0xC0000095ul
#define EXCEPTION_STACK_OVERFLOW 0xC00000FDul
#define EXCEPTION_NONCONTINUABLE 1ul
#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)

using LPTOP_LEVEL_EXCEPTION_FILTER = LONG(WINAPI*)(EXCEPTION_POINTERS* pointers);

extern "C" {
/// The record names the address of the caller.
QEL_LAYER void WINAPI RaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments);
/// Called for a fault that no guard and no C++ handler takes; see LPTOP_LEVEL_EXCEPTION_FILTER's three answers.
QEL_LAYER LPTOP_LEVEL_EXCEPTION_FILTER WINAPI SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter);
/// The calling thread's registers after the return of this call.
QEL_LAYER void WINAPI RtlCaptureContext(PCONTEXT context);
}
