/// @file
/// The heap check around reports and their sections.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// Checks the heap and writes an assertion line that names `line` when it is not sound. Returns the code, _HEAPOK (-2)
/// for a sound heap.
int CheckHeap(int line);

}  // namespace qel::report
