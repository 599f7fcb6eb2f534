/// @file
/// Tells log files by what they begin with: day histories have names of the host's choice, and files get renamed.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "qellog/record/channel.h"

namespace qellog {

/// The role of a file whose first bytes these are; nothing when none of its records begins in them.
std::optional<FileRole> RoleOf(std::string_view firstBytes);
/// The same of a file; `failure` tells why it could not be read.
std::optional<FileRole> RoleByContent(const std::filesystem::path& path, std::string& failure);

}  // namespace qellog
