/// @file
/// The processors that the process may use and how many threads an image operation takes.
///
/// The thread count is each thread's own; the threshold is one plain word for the process, set at the start. A failure
/// gives the safe count 1 and a line in the assertion channel.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// How many processors the process may use, at least 1.
QEL_API DWORD VemoGetCPUCount();

/// Runs the CPUID instruction. 1, or 0 with the results untouched when the processor has no such instruction or its
/// highest basic leaf is below `leaf`; extended leaves (0x80000000 and above) are therefore refused.
QEL_API int VemoGetCPUID(DWORD leaf, DWORD* eax, DWORD* ebx, DWORD* ecx, DWORD* edx);

/// 1 for every system of version 6.x, else 0.
QEL_API int VemoIsOSVista();

/// Sets the calling thread's count for its parallel regions. While the OpenMP run time does not adjust dynamically (its
/// default) every count becomes 1; otherwise a negative one becomes 1, and 0 or more than there are processors becomes
/// the number of processors. Changes nothing inside a parallel region.
QEL_API void VemoOMPSetNumThreads(int count);
/// The calling thread's count, 1 to the number of processors.
QEL_API int VemoOMPGetNumThreads();

/// Sets the image size below which one thread is enough (98,304 at first) and returns it.
QEL_API int VemoOMPGetNumThreadsSetImgSize(int threshold);
/// 1 for an image below `threshold` (0: the one that was set), else the thread's count.
QEL_API int VemoOMPGetNumThreadsCheckImgSize(int imageSize, int threshold);

QEL_FUNCTIONS_END
