/// @file
/// The files that were named on the command line or lie in a folder that was.
#pragma once
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "qellog/record/channel.h"

namespace qellog {

struct LogFile {
  std::filesystem::path path;  ///< "-" for standard input
  std::string channel;         ///< a short name of channel.h, or the file's own name without its ending
  FileRole role = FileRole::kMixed;
  std::uint64_t size = 0;
  bool isStandardInput = false;
};

/// A path as text in UTF-8, for messages and tables.
std::string PathText(const std::filesystem::path& path);

/// Takes what could not be read, and why.
using ReportProblem = std::function<void(const std::string& name, const std::string& problem)>;

/// The log files among the names and in the folders among them, in the order of their names. A file is one by its name
/// or by what it begins with; others in a folder are left out in silence, others that were named are taken as mixed.
std::vector<LogFile> FindLogFiles(const std::vector<std::string>& names, const ReportProblem& problem);

}  // namespace qellog
