/// @file
/// What an application checks once at its start.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Makes sure that one instance of an application runs for each user. 0: this is the only one, and stays so until its
/// process ends. 1: after `timeoutMs` milliseconds of trying once a second (at least one try) there still is another
/// one that goes by `stem`, or the mark could not be made; with `showError` non-zero the user is told. `line` and
/// `sourceFile` are the caller's position for the log.
QEL_API int VemoChkMultiStartUp(int line, const char* sourceFile, const wchar_t* stem, int showError, DWORD timeoutMs);

/// 1 on the NT family from version 5.1 on, another non-zero value on other systems, 0 (and the user is told) when the
/// version cannot be read.
QEL_API int VemoChkOSVer();

QEL_FUNCTIONS_END
