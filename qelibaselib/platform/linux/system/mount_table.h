/// @file
/// The disks among the mounted file systems, from the text that the kernel prints.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

struct Disk {
  std::string root;    ///< ends in a slash
  std::string device;  ///< "major:minor"
  UINT type;           ///< DRIVE_FIXED, DRIVE_REMOTE or DRIVE_CDROM; what is removable is not known here
};

/// The disks of a text as /proc/self/mountinfo has it, each device once. Lines that are none are left out.
std::vector<Disk> DisksOf(std::string_view mountInfo);

}  // namespace qel::layer
