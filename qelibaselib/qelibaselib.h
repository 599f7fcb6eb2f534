/// @file
/// All that a host includes: the exports, the exported classes and the Win32 names.
#pragma once
#include "platform/win32.h"
