/// @file
/// What the library's own messages tell: error numbers, retries and how they ended, waits.
#pragma once
#include <cstdint>
#include <optional>
#include <string_view>

namespace qellog {

/// The system error that a message names ("lastErr=32", "lec=5", "errCode=0", "lc=0xb7"); nothing when it names none.
std::optional<std::uint32_t> ErrorOf(std::string_view message);

enum class RetryOutcome {
  kGoesOn,
  kEndedWell,
  kEndedBadly,
};

struct Retry {
  RetryOutcome outcome;
  std::uint32_t count;        ///< attempts before this line
  std::string_view function;  ///< the wrapper, such as "CreateFileX"
};

/// Nothing when the message is none of a retried operation.
std::optional<Retry> RetryOf(std::string_view message);

struct Wait {
  std::int64_t milliseconds;
  std::string_view what;  ///< the function that waited
};

/// A lock that was waited for, a flush that took long.
std::optional<Wait> WaitOf(std::string_view message);

/// The name of a Windows error number, such as "ERROR_SHARING_VIOLATION"; empty for one that is not known here.
std::string_view ErrorName(std::uint32_t error);
/// The number of such a name, also without its "ERROR_" and in lower case.
std::optional<std::uint32_t> ErrorByName(std::string_view name);

}  // namespace qellog
