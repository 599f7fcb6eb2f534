/// @file
/// The display of a text: nothing is shown today, see docs/kept-behaviour.md.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Puts `text` on display: nothing is shown, a short beep may be heard. Returns at once, or with `waitForEnd` non-zero
/// when the display has ended. `text` is copied.
QEL_API void VemoDispInf(const char* text, int waitForEnd);

QEL_FUNCTIONS_END
