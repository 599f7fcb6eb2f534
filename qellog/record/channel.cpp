#include "qellog/record/channel.h"

#include <algorithm>
#include <cctype>

#include "qelibaselib/base/log_layout.h"

namespace qellog {
namespace {

namespace layout = qel::layout;

constexpr Channel kChannels[] = {
    {"assert", layout::kAssertFile.narrow, FileRole::kChannel},
    {"misc", layout::kMiscFile.narrow, FileRole::kChannel},
    {"lock", layout::kLockFile.narrow, FileRole::kChannel},
    {"file", layout::kFileOperationFile.narrow, FileRole::kChannel},
    {"flush", layout::kFlushFile.narrow, FileRole::kChannel},
    {"alloc", layout::kMemoryAllocationFile.narrow, FileRole::kChannel},
    {"memory", layout::kMemoryOperationFile.narrow, FileRole::kChannel},
    {"statuserror", layout::kModuleStatusErrorFile.narrow, FileRole::kChannel},
    {"winapi", layout::kWinApiWrapFile.narrow, FileRole::kChannel},
    {"exception", layout::kExceptionReportFile.narrow, FileRole::kExceptionReports},
    {"status", layout::kModuleStatusReportFile.narrow, FileRole::kStatusReports},
    {"benchmark", layout::kBenchmarkReportFile.narrow, FileRole::kBenchmarkReports},
};

char Lower(char character) { return static_cast<char>(std::tolower(static_cast<unsigned char>(character))); }

bool ContainsWithoutCase(std::string_view text, std::string_view part) {
  const auto same = [](char left, char right) { return Lower(left) == Lower(right); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

}  // namespace

std::span<const Channel> KnownChannels() { return kChannels; }

std::optional<Channel> ChannelOfFile(std::string_view fileName) {
  for (const Channel& channel : kChannels) {
    const std::string_view stem = channel.fileName.substr(0, channel.fileName.rfind('.'));
    if (ContainsWithoutCase(fileName, stem)) return channel;
  }
  return std::nullopt;
}

std::optional<unsigned long> LimitOf(FileRole role) {
  switch (role) {
    case FileRole::kChannel:
    case FileRole::kDayHistory:
    case FileRole::kBenchmarkReports:
      return layout::kChannelLimitBytes;
    case FileRole::kStatusReports:
      return layout::kStatusReportLimitBytes;
    case FileRole::kExceptionReports:
    case FileRole::kMixed:
      break;
  }
  return std::nullopt;
}

}  // namespace qellog
