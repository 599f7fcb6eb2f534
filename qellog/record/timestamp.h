/// @file
/// Local times as the logs hold them, with milliseconds and without a zone.
#pragma once
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qellog {

/// Milliseconds of local time since the first of January 1970.
struct Timestamp {
  std::int64_t milliseconds = 0;
  auto operator<=>(const Timestamp&) const = default;
};

/// "2024/03/05, 14:07:09.042" has a comma behind the date, the reports' times have none.
enum class TimeLayout { kWithComma, kWithoutComma };

/// How many characters a time of that layout takes.
constexpr std::size_t TimeLength(TimeLayout layout) { return layout == TimeLayout::kWithComma ? 24 : 23; }

/// Whether the text begins as a time does: digits and separators stand in their places, whatever date they make.
bool LooksLikeTime(std::string_view text, TimeLayout layout);

/// Whether the whole text is a part of such a time, from its first digit on.
bool LooksLikeStartOfTime(std::string_view text);

/// The time that the text begins with; nothing when its shape is another or there is no such day (31 February, year 0).
std::optional<Timestamp> ParseTime(std::string_view text, TimeLayout layout);

/// Year, month and day as one time at midnight; nothing when there is no such day.
std::optional<Timestamp> MakeDay(int year, int month, int day);

/// "2024/03/05 14:07:09.042"
std::string FormatTime(Timestamp time);
/// "14:07:09.042"
std::string FormatTimeOfDay(Timestamp time);
/// "3 h 12 min", "1.204 s"
std::string FormatDuration(std::int64_t milliseconds);

}  // namespace qellog
