/// @file
/// The kinds of files that a log folder holds.
#pragma once
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qellog {

/// What a file consists of. It decides which texts start a record in it: a message may look like a report's banner.
enum class FileRole {
  kChannel,     ///< lines with the memory load
  kDayHistory,  ///< lines without it
  kExceptionReports,
  kStatusReports,
  kBenchmarkReports,
  kMixed,  ///< whatever standard input brings
};

struct Channel {
  std::string_view name;      ///< short, for the command line and the tables
  std::string_view fileName;  ///< in the log folder; empty for what has no fixed name
  FileRole role;
};

std::span<const Channel> KnownChannels();

/// The channel that a file's name belongs to, also when something was added to it ("... (2).txt", "....txt.bak").
std::optional<Channel> ChannelOfFile(std::string_view fileName);

/// The size above which the library appends nothing more; nothing when the file has no limit.
std::optional<unsigned long> LimitOf(FileRole role);

}  // namespace qellog
