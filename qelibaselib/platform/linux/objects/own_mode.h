/// @file
/// Rights of files and folders of this user alone, whatever the umask.
#pragma once
#include <sys/stat.h>

namespace qel::layer {

/// Gives back the rights in `mode` to what the umask of its maker, or its maker's end, left with fewer of them. Changes
/// nothing that is not of this user and this type (S_IFREG, S_IFDIR), or that has rights beyond `mode`: somebody else
/// may have been in there. Whether it has exactly `mode` afterwards.
bool RestoreOwnMode(int folder, const char* name, uid_t user, mode_t type, mode_t mode);

}  // namespace qel::layer
