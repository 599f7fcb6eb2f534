/// @file
/// Declarations of what the guard calls and other subsystems bring; gone when they are there.
#pragma once
#include "platform/win32.h"

extern "C" {
const wchar_t* VemoGetExePath();
int VemoExceptLogOut(const wchar_t* title, const char* message, const EXCEPTION_RECORD* record, const CONTEXT* context,
                     int line, const char* sourceFile);
}
