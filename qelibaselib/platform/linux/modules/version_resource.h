/// @file
/// The version resource in the bytes of a PE module, and the values in a version block. Every offset is checked: bad
/// bytes give "no resource" or "no value".
#pragma once
#include <cstdint>
#include <span>
#include <string_view>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

using Bytes = std::span<const uint8_t>;

/// The bytes of the first version resource of a 32- or 64-bit module. On failure they are empty and `error` tells why:
/// ERROR_RESOURCE_DATA_NOT_FOUND without any resources (or for a file that is no module), ERROR_RESOURCE_TYPE_NOT_FOUND
/// without one of this type.
Bytes FindVersionResource(Bytes file, DWORD& error);

struct VersionValue {
  bool found = false;
  bool text = false;  ///< UTF-16, `bytes` ends where the node says
  Bytes bytes;        ///< inside the resource; may be empty
};

/// The value at a path such as "\VarFileInfo\Translation", compared without case.
VersionValue FindVersionValue(Bytes resource, std::string_view path);

}  // namespace qel::layer
