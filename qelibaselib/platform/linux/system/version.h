/// @file
/// The version query that programs look up by name.
#pragma once
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"

namespace qel::layer {

/// Fills the record up to the service-pack text whatever its size field says, the rest when it is a whole record.
NTSTATUS WINAPI RtlGetVersion(OSVERSIONINFOEXW* version);

}  // namespace qel::layer
