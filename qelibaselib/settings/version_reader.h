/// @file
/// The system's true version, whatever compatibility the program asked for.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// Zeroes the record, sets its size and fills it. Returns 0 when the version cannot be read, else a value that is not
/// 1 (see VemoChkOSVer).
int ReadSystemVersion(OSVERSIONINFOEXW& version);

}  // namespace qel
