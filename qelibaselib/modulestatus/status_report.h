/// @file
/// The module status report: process, address space, memory, disks and system at one moment, as text for support.
#pragma once
#include <stdio.h>

#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Appends a report to "VemoModuleStatus_382C6292.txt" in the log folder, one report at a time for all processes of the
/// user. A file of more than 10 MiB takes no more; a mutex that is not had within 60 s costs the report.
/// @param title    null for the program's file name.
/// @param message  may be null.
/// @return the answer of the heap check at the end: -2 when the heap is sound.
QEL_API int VemoModuleStatusLogOut(const wchar_t* title, const char* message);

/// Writes the same report to an open stream, each line flushed, without a lock. A section that faults leaves a line in
/// the module-status error channel and the next one follows.
/// @return the number of characters written.
QEL_API int ModuleStatusLogOut(FILE* stream, const wchar_t* title, const char* message);
QEL_FUNCTIONS_END
