/// @file
/// The one include of the library code for the system's names.
#pragma once
#ifdef _WIN32
#include "platform/windows/win32.h"
#else
#include "platform/linux/win32.h"
#endif
