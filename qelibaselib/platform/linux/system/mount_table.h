/// @file
/// The disks among the mounted file systems, from the text that the kernel prints.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

struct Disk {
  std::string root;    ///< ends in a slash
  std::string device;  ///< "major:minor"
  UINT type;           ///< DRIVE_FIXED, DRIVE_REMOTE or DRIVE_CDROM; what is removable is not known here
  bool showsPart;      ///< not the whole file system: a folder or file of it that is mounted elsewhere too
  bool mayHang;        ///< another computer or program answers for it, or never does
};

/// The disks of a text as /proc/self/mountinfo has it. Where two lie on one another the upper one counts; of each
/// device the first that shows all of it, or else the first, among those of which `isFolder` says so: containers have
/// single files mounted. Lines that are none are left out.
std::vector<Disk> ListDisks(std::string_view mountInfo, bool (*isFolder)(const Disk&));

/// The disk that is mounted there, also one that the list leaves out. `root` ends in a slash.
std::optional<Disk> FindDisk(std::string_view mountInfo, std::string_view root);

}  // namespace qel::layer
