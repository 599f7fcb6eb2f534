/// @file
/// The memory load for the log lines, without a guard and without a walk over the address space.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// Clears the record, sets its length and fills it.
void ReadMemoryStatus(MEMORYSTATUSEX& status);
/// The physical memory in use, in percent.
DWORD ReadMemoryLoad();

}  // namespace qel
