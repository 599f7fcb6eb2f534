/// @file
/// The machine code around an instruction as text.
#pragma once
#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// Forty lines of sixteen bytes, the twenty-first starting at `address` and marked. A byte that cannot be read is
/// printed as "??" and the address stays on it, so the rest of the dump is "??".
void DumpCode(ReportStream& out, DWORD address);

}  // namespace qel::report
