/// @file
/// Whether physical memory is short, asked before a large job.
#pragma once
#include "qelibaselib/base/export.h"
#include "qelibaselib/platform/win32.h"

QEL_FUNCTIONS_BEGIN
/// 1 when the memory load has reached `limitPercent` or less physical memory than the floor is available, otherwise 0.
QEL_API BOOL IsPhysMemShortage(DWORD limitPercent);

/// Sets the floor for the whole process; it starts at 256 MiB.
QEL_API void SetIsPhysMemShortage(unsigned long long floorBytes);
QEL_FUNCTIONS_END
