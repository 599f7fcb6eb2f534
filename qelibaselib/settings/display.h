/// @file
/// The display of a text: nothing is shown, only a short beep may be heard.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Takes `text` for display, which shows nothing. Returns at once, or with `waitForEnd` non-zero
/// when the display has ended. `text` is copied.
QEL_API void VemoDispInf(const char* text, int waitForEnd);

QEL_FUNCTIONS_END
