/// @file
/// The version query that programs look up by name.
#pragma once
#include "platform/linux/system_info.h"

namespace qel::layer {

/// Fills the record up to the service-pack text whatever its size field says, the rest when it is a whole record.
NTSTATUS WINAPI RtlGetVersion(OSVERSIONINFOEXW* version);

}  // namespace qel::layer
