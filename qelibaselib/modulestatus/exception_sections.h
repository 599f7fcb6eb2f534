/// @file
/// The fault itself as text: exception record and processor context.
#pragma once
#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// The record's fields and parameters; one line when there is no record.
void WriteRecord(ReportStream& out, const EXCEPTION_RECORD* record);

/// All registers, the areas of the floating-point unit and the code around the instruction; one line when there is no
/// context.
void WriteContext(ReportStream& out, const CONTEXT* context);

}  // namespace qel::report
