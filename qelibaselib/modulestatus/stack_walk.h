/// @file
/// The stack of a thread as text: the functions that it is in, then the memory from the stack pointer on.
#pragma once
#include <stdio.h>

#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Writes the walk from the context's Eip, Esp and Ebp, each line flushed, then at most 64 lines of raw stack. Reads no
/// byte that it has not probed. Without a context, or without memory for the symbols, one line says so.
/// @return the answer of the heap check at the end: -2 when the heap is sound, without a context and after a fault.
QEL_API int StackWalkLogOut(FILE* stream, HANDLE process, HANDLE thread, const CONTEXT* context);
QEL_FUNCTIONS_END
