/// @file
/// Protections of pages.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// The system's protection for one of the six that private memory can have; -1 for all others.
int PrivateProtection(DWORD protection);

}  // namespace qel::layer
