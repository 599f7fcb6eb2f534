/// @file
/// The state of memory, for hosts, reports and the lines of failed allocations.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// The state of memory at this moment. Every pointer may be null. `status` is filled as by GlobalMemoryStatusEx, its
/// length set here. `largestFree` and `freeSum` take the bytes of the largest and of all free regions below 2 GiB,
/// which costs a walk over the address space; `seconds` takes the time that the call needed.
QEL_API void VemoGetMemoryStatus(DWORD* largestFree, DWORD* freeSum, MEMORYSTATUSEX* status, double* seconds);

QEL_FUNCTIONS_END
