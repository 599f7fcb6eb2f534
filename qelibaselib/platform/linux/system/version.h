/// @file
/// The version query that programs look up by name.
///
/// The room system/ holds what a program asks about the machine, the system and its user: clocks and local time, disks,
/// profiles, the user's name, the version, the processors, the bell. It may use base/ and the address space of memory/.
#pragma once
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"

namespace qel::layer {

/// Fills the record up to the service-pack text whatever its size field says, the rest when it is a whole record.
NTSTATUS WINAPI RtlGetVersion(OSVERSIONINFOEXW* version);

}  // namespace qel::layer
