/// @file
/// Mappings that other processes reach by name.
#pragma once
#include "qelibaselib/platform/linux/memory/mapping.h"

namespace qel::layer {

/// Gives contents to a name that was just made or joins those that it has: `contents` is taken for a new name only, and
/// replaced otherwise (ERROR_ALREADY_EXISTS). Other processes find the contents of a file by file_record.h; memory of
/// the page file, for which `contents` has no descriptor, is allocated with the name.
DWORD CreateNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage);

/// ERROR_FILE_NOT_FOUND when nobody has a handle of it, or when the file behind it is gone.
DWORD OpenNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage);

}  // namespace qel::layer
