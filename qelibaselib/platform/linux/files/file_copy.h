/// @file
/// Copying a file by its system paths.
#pragma once
#include "qelibaselib/platform/linux/files/path.h"

namespace qel::layer {

/// Copies contents, holes included, and of the properties what the user may set on the target. Both sides must be
/// ordinary files: devices, pipes and sockets fail with ERROR_NOT_SUPPORTED at once. Returns the Win32 error. A copy
/// that fails midway leaves no new target; a target that was there before is left empty.
DWORD CopyFileByPath(const SystemPath& source, const SystemPath& target, bool failIfExists);

}  // namespace qel::layer
