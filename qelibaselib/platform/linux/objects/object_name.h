/// @file
/// Names of kernel objects: their rules and what they are found by.
#pragma once
#include <sys/types.h>

#include <cstdint>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// What a name comes to. Names compare exactly, so a hash of the text stands for it.
struct ObjectKey {
  uint64_t low = 0, high = 0;
  uint32_t session = 0;  ///< login session of `Local\` names; kEverySession for `Global\`
  uid_t user = 0;
  bool operator==(const ObjectKey&) const = default;
};
inline constexpr uint32_t kEverySession = 0xFFFFFFFE;

/// Length of an object's file name with its terminator.
inline constexpr size_t kObjectFileNameSize = 44;
void FormatObjectFileName(const ObjectKey& key, char (&fileName)[kObjectFileNameSize]);

/// Checks a name that is not empty. 0, or the error that creating an object of this name ends with:
/// a name after "\" 161, an empty one after the prefix 123, a folder that does not exist 3, the folder itself 6.
DWORD ParseObjectName(const wchar_t* name, ObjectKey* key);

}  // namespace qel::layer
