/// @file
/// The locale of one thread. The C runtime of Windows gives its setlocale this meaning; the C library of Linux has
/// other names for it.
#pragma once
#include <locale.h>

#include "qelibaselib/platform/win32.h"

#ifndef _ENABLE_PER_THREAD_LOCALE
#define _ENABLE_PER_THREAD_LOCALE 1
#define _DISABLE_PER_THREAD_LOCALE 2
#endif

#ifndef _WIN32
extern "C" {
/// Whether ThreadSetLocale of this thread concerns the thread alone: returns the setting so far, which is "disabled" at
/// a thread's start, and sets another one unless `setting` is 0. -1 for a value that is neither.
QEL_LAYER int __cdecl _configthreadlocale(int setting);
}
#define QEL_LOCALE_API QEL_LAYER
#else
#define QEL_LOCALE_API
#endif

/// As setlocale. The text is valid until the thread's next call.
QEL_LOCALE_API char* ThreadSetLocale(int category, const char* name);
