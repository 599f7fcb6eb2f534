/// @file
/// The locale of one thread. The C runtime of Windows gives its setlocale this meaning; the C library of Linux has
/// other names for it.
#pragma once
#include <locale.h>

#include "qelibaselib/platform/win32.h"

#ifdef _WIN32
#define QEL_LOCALE_API
#else
#define QEL_LOCALE_API QEL_LAYER
#endif

/// As setlocale, for the calling thread alone while _configthreadlocale says so. The text is valid until the thread's
/// next call.
QEL_LOCALE_API char* ThreadSetLocale(int category, const char* name);
