/// @file
/// What the readers of the reports share.
#pragma once
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "qellog/record/heading.h"
#include "qellog/report/status_report.h"

namespace qellog {

/// A heading of log_layout.h as it stands in a line.
constexpr std::string_view WithoutLineFeed(std::string_view layout) { return TextBefore(layout, '\n'); }
/// What a layout of printf begins with.
constexpr std::string_view UpToField(std::string_view layout) { return TextBefore(layout, '%'); }

/// Cuts "name = value" at the first equals sign, without the blanks round it; nothing without a sign.
std::optional<NamedValue> SplitValue(std::string_view line);

/// The number that the text begins with.
template <class Number>
std::optional<Number> LeadingNumber(std::string_view text, int base = 10) {
  Number value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

/// The number behind the mark.
template <class Number>
std::optional<Number> NumberBehind(std::string_view text, std::string_view mark, int base = 10) {
  const std::size_t begin = text.find(mark);
  return begin == text.npos ? std::nullopt : LeadingNumber<Number>(text.substr(begin + mark.size()), base);
}

}  // namespace qellog
