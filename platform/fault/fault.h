/// @file
/// Faults of the processor as C++ exceptions; see fault.h's parts in frame.S, core.cpp and the front ends
/// platform/linux/fault.cpp and platform/windows/fault.cpp.
#pragma once
#include <type_traits>

#include "platform/win32.h"
