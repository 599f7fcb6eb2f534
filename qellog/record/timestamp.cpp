#include "qellog/record/timestamp.h"

#include <chrono>
#include <cstdio>

namespace qellog {
namespace {

constexpr std::int64_t kMillisecondsPerDay = 86'400'000;
constexpr long long kMinutesPerDay = 1440;

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

int Number(std::string_view text, std::size_t begin, std::size_t digits) {
  int value = 0;
  for (std::size_t i = begin; i < begin + digits; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

constexpr std::string_view Shape(TimeLayout layout) {
  return layout == TimeLayout::kWithComma ? "0000/00/00, 00:00:00.000" : "0000/00/00 00:00:00.000";
}

/// The text is not longer than the shape.
bool FitsShape(std::string_view text, std::string_view shape) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (shape[i] == '0' ? !IsDigit(text[i]) : text[i] != shape[i]) return false;
  }
  return true;
}

std::optional<Timestamp> ParseTimeOfDay(std::string_view text) {
  const int hour = Number(text, 0, 2);
  const int minute = Number(text, 3, 2);
  const int second = Number(text, 6, 2);
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return Timestamp{((hour * 60 + minute) * 60 + second) * std::int64_t{1000} + Number(text, 9, 3)};
}

void PutNumber(std::string& text, std::size_t begin, std::size_t digits, unsigned value) {
  for (std::size_t place = begin + digits; place > begin; value /= 10)
    text[--place] = static_cast<char>('0' + value % 10);
}

void PutTimeOfDay(std::string& text, std::size_t begin, Timestamp time) {
  const auto rest =
      static_cast<unsigned>((time.milliseconds % kMillisecondsPerDay + kMillisecondsPerDay) % kMillisecondsPerDay);
  PutNumber(text, begin, 2, rest / 3'600'000);
  PutNumber(text, begin + 3, 2, rest / 60'000 % 60);
  PutNumber(text, begin + 6, 2, rest / 1000 % 60);
  PutNumber(text, begin + 9, 3, rest % 1000);
}

template <class... Values>
std::string Print(const char* format, Values... values) {
  char text[64];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

}  // namespace

bool LooksLikeTime(std::string_view text, TimeLayout layout) {
  const std::string_view shape = Shape(layout);
  return text.size() >= shape.size() && FitsShape(text.substr(0, shape.size()), shape);
}

bool LooksLikeStartOfTime(std::string_view text) {
  const std::string_view shape = Shape(TimeLayout::kWithComma);
  return text.size() < shape.size() && FitsShape(text, shape);
}

std::optional<Timestamp> ParseTime(std::string_view text, TimeLayout layout) {
  if (!LooksLikeTime(text, layout)) return std::nullopt;
  const auto day = MakeDay(Number(text, 0, 4), Number(text, 5, 2), Number(text, 8, 2));
  const auto timeOfDay = ParseTimeOfDay(text.substr(TimeLength(layout) - 12));
  if (!day || !timeOfDay) return std::nullopt;
  return Timestamp{day->milliseconds + timeOfDay->milliseconds};
}

std::optional<Timestamp> MakeDay(int year, int month, int day) {
  const std::chrono::year_month_day date(std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day)));
  if (year < 1 || !date.ok()) return std::nullopt;
  return Timestamp{std::chrono::sys_days(date).time_since_epoch().count() * kMillisecondsPerDay};
}

// Without printf: `cat` formats a time for every line.
std::string FormatTime(Timestamp time) {
  const auto days = std::chrono::floor<std::chrono::days>(std::chrono::milliseconds(time.milliseconds));
  const std::chrono::year_month_day date{std::chrono::sys_days(days)};
  std::string text(Shape(TimeLayout::kWithoutComma));
  PutNumber(text, 0, 4, static_cast<unsigned>(static_cast<int>(date.year())));
  PutNumber(text, 5, 2, static_cast<unsigned>(date.month()));
  PutNumber(text, 8, 2, static_cast<unsigned>(date.day()));
  PutTimeOfDay(text, 11, time);
  return text;
}

std::string FormatTimeOfDay(Timestamp time) {
  std::string text = "00:00:00.000";
  PutTimeOfDay(text, 0, time);
  return text;
}

std::string FormatDuration(std::int64_t milliseconds) {
  const auto minutes = static_cast<long long>(milliseconds / 60'000);
  if (milliseconds < 60'000)
    return Print("%lld.%03lld s", static_cast<long long>(milliseconds / 1000),
                 static_cast<long long>(milliseconds % 1000));
  if (minutes < 60) return Print("%lld min %lld s", minutes, static_cast<long long>(milliseconds / 1000 % 60));
  if (minutes < kMinutesPerDay) return Print("%lld h %lld min", minutes / 60, minutes % 60);
  return Print("%lld d %lld h", minutes / kMinutesPerDay, minutes / 60 % 24);
}

}  // namespace qellog
