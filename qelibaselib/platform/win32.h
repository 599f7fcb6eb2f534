/// @file
/// The one include of the library code for the system's names.
#pragma once
#ifdef _WIN32
#include "qelibaselib/platform/windows/win32.h"
#else
#include "qelibaselib/platform/linux/win32/windows.h"
#endif
