#include "qellog/record/message_facts.h"

#include <charconv>

namespace qellog {
namespace {

template <class Number>
std::optional<Number> NumberAfter(std::string_view text, std::string_view mark, int base = 10) {
  const std::size_t begin = text.find(mark);
  if (begin == text.npos) return std::nullopt;
  Number value = 0;
  const char* const digits = text.data() + begin + mark.size();
  const auto result = std::from_chars(digits, text.data() + text.size(), value, base);
  return result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

/// The name before the first parenthesis that stands behind `from`.
std::string_view FunctionAfter(std::string_view message, std::size_t from) {
  const std::size_t open = message.find('(', from);
  if (open == message.npos) return {};
  const std::size_t blank = message.rfind(' ', open);
  const std::size_t begin = blank == message.npos || blank < from ? from : blank + 1;
  return message.substr(begin, open - begin);
}

/// CreateFileMappingX gives up after this many lines without a closing one.
constexpr std::uint32_t kLastMappingRetry = 29;

RetryOutcome OutcomeOf(std::string_view message, const Retry& retry) {
  if (message.find(", Complete, ") != message.npos) {
    const bool flushed = message.starts_with("Success, ");
    return flushed || ErrorOf(message) == 0u ? RetryOutcome::kEndedWell : RetryOutcome::kEndedBadly;
  }
  const bool gaveUp = retry.function == "CreateFileMappingX" && retry.count >= kLastMappingRetry;
  return gaveUp ? RetryOutcome::kEndedBadly : RetryOutcome::kGoesOn;
}

}  // namespace

std::optional<std::uint32_t> ErrorOf(std::string_view message) {
  if (message.find('=') == message.npos) return std::nullopt;
  for (const std::string_view mark : {"lastErr=", "lec=", "errCode=", "LastErrNum = "})
    if (const auto error = NumberAfter<std::uint32_t>(message, mark)) return error;
  return NumberAfter<std::uint32_t>(message, "lc=0x", 16);
}

std::optional<Retry> RetryOf(std::string_view message) {
  constexpr std::string_view kCount = "retryCount=";
  const std::size_t begin = message.find(kCount);
  if (begin > 16) return std::nullopt;  // at the start, or behind "Success, " or "Error, "
  const auto count = NumberAfter<std::uint32_t>(message, kCount);
  std::size_t status = message.find(", Retry, ");
  if (status == message.npos) status = message.find(", Complete, ");
  if (!count || status == message.npos) return std::nullopt;
  Retry retry{RetryOutcome::kGoesOn, *count, FunctionAfter(message, status + 2)};
  retry.outcome = OutcomeOf(message, retry);
  const bool neverRetried = retry.count == 0 && retry.outcome != RetryOutcome::kGoesOn;
  return neverRetried ? std::nullopt : std::optional(retry);
}

std::optional<Wait> WaitOf(std::string_view message) {
  if (const auto lock = NumberAfter<std::uint32_t>(message, ", tim="))
    return Wait{*lock == 0xFFFFFFFF ? 0 : std::int64_t{*lock}, message.substr(0, message.find('('))};
  if (const auto flush = NumberAfter<std::int64_t>(message, ", ET1=")) return Wait{*flush, "FlushViewOfFileX"};
  return std::nullopt;
}

}  // namespace qellog
