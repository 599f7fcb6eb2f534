/// @file
/// A status report, taken apart. The texts are bytes of the report: whoever shows them makes them visible first.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qellog/record/timestamp.h"

namespace qellog {

struct ModuleRange {
  std::uint32_t start = 0;
  std::uint32_t end = 0;
  std::uint32_t entryPoint = 0;
  std::string name;
};

struct FreeRegion {
  std::uint32_t start = 0;
  std::uint32_t end = 0;
  std::uint32_t mebibytes = 0;
};

/// A line "name = value" or "name=value".
struct NamedValue {
  std::string name;
  std::string value;
};

struct StatusReport {
  std::optional<Timestamp> time;
  std::string heading;  ///< "title(message)"
  std::uint32_t processId = 0;
  std::string program;
  std::vector<NamedValue> banner;  ///< folders, threads, working set
  std::vector<NamedValue> system;  ///< operating system version and system information
  std::vector<ModuleRange> modules;
  std::vector<FreeRegion> freeRegions;
  std::vector<NamedValue> freeSums;  ///< the four sums of free address space, named in Japanese
  std::vector<NamedValue> memory;
  std::vector<std::string> drives;  ///< whole lines
  bool reachesDrives = false;       ///< the last section has begun; false for a report that was cut short
};

/// `text` is the report without what is around it. What is missing or damaged is left out.
StatusReport ParseStatusReport(std::string_view text);

}  // namespace qellog
