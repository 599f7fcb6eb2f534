/// @file
/// What the flushes of one thread have added up to.
#pragma once
#include "qelibaselib/base/export.h"

/// What a thread's calls of FlushViewOfFileX have added up to.
struct T_FVOF_INFORMATION {
  ULONGLONG totalBytes;
  ULONGLONG callCount;
  double totalMs;
  double longestMs;
};
static_assert(sizeof(T_FVOF_INFORMATION) == 32);

extern "C" {

/// Zeroes the calling thread's flush statistics.
QEL_API void VemoClearFVOFInf();
/// The calling thread's flush statistics, until the thread ends; null when they could not be made.
QEL_API T_FVOF_INFORMATION* VemoGetFVOFInf();

}  // extern "C"
