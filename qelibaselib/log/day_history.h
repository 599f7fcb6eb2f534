/// @file
/// The log of a month: one file for each day of the month, each replaced when its day comes again. For hosts; the
/// library itself writes to channels. See log_writer.h for what holds for every line.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Appends to "<folder>\<fileBase>_<day of the month>.<extension>" the line "time, program, process, thread,
/// sourceFile(line):message". The first line of a day that finds the file of an earlier month deletes it. A file of
/// more than 1,048,576 bytes takes no line and is not replaced either. The mutex is that of VemoLogOutFile.
QEL_API void VemoLogOutFileDayHis(const wchar_t* mutexStem, const wchar_t* folder, const wchar_t* fileBase,
                                  const wchar_t* extension, DWORD timeoutMs, int line, const char* sourceFile,
                                  const char* message);

QEL_FUNCTIONS_END
