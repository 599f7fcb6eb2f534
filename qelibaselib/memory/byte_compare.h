/// @file
/// Comparison that the compiler may unwind from: the C library's has no unwind tables everywhere.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::memory {

/// The sign of the first difference, bytes taken as unsigned; 0 when there is none. Touches no page behind the one
/// that holds the first difference.
int CompareBytes(const void* first, const void* second, DWORD size);

}  // namespace qel::memory
