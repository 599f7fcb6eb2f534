/// @file
/// What the flushes of one thread have added up to.
#pragma once
#include "qelibaselib/base/export.h"

/// What a thread's calls of FlushViewOfFileX have added up to.
typedef struct T_FVOF_INFORMATION {
  ULONGLONG totalBytes;
  ULONGLONG callCount;
  double totalMs;
  double longestMs;
} T_FVOF_INFORMATION;

QEL_FUNCTIONS_BEGIN

/// Zeroes the calling thread's flush statistics.
QEL_API void VemoClearFVOFInf();
/// The calling thread's flush statistics, until the thread ends; null when they could not be made.
QEL_API T_FVOF_INFORMATION* VemoGetFVOFInf();

QEL_FUNCTIONS_END
