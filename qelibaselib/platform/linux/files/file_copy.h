/// @file
/// Copying a file by its system paths.
#pragma once
#include "qelibaselib/platform/linux/files/path.h"

namespace qel::layer {

/// Returns the Win32 error. A copy that fails midway leaves no target.
DWORD CopyFileByPath(const SystemPath& source, const SystemPath& target, bool failIfExists);

}  // namespace qel::layer
