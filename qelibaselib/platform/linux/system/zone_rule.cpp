#include "qelibaselib/platform/linux/system/zone_rule.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace qel::layer {
namespace {

using namespace std::chrono;

constexpr int64_t kSecondsPerDay = 86'400;
constexpr std::string_view kUsualDays = ",M3.2.0,M11.1.0";

/// The day of a change: what the letter and the numbers before the time of day say.
struct ChangeDay {
  enum class Kind { kWithoutLeapDay, kFromZero, kWeekday } kind = Kind::kFromZero;
  int day = 0;  ///< of the year (1 to 365 or 0 to 365), or of the week with Sunday 0
  int month = 0, week = 0;
  int64_t secondsOfDay = int64_t{2} * 3600;
};

struct ZoneRule {
  int32_t standardEast = 0, summerEast = 0;
  bool hasSummer = false;
  ChangeDay toSummer, toStandard;
};

/// Reads the rule's text from the front; every function answers false at the first character that does not fit.
class RuleReader {
 public:
  explicit RuleReader(std::string_view text) : rest_(text) {}

  bool ReadRule(ZoneRule* rule) {
    int64_t west = 0;
    if (!SkipName() || !ReadSignedTime(24, &west)) return false;
    rule->standardEast = static_cast<int32_t>(-west);
    if (rest_.empty()) return true;
    if (!SkipName()) return false;
    rule->hasSummer = true;
    rule->summerEast = rule->standardEast + 3600;
    if (!rest_.empty() && rest_[0] != ',') {
      if (!ReadSignedTime(24, &west)) return false;
      rule->summerEast = static_cast<int32_t>(-west);
    }
    if (rest_.empty()) rest_ = kUsualDays;
    return ReadChange(&rule->toSummer) && ReadChange(&rule->toStandard) && rest_.empty();
  }

 private:
  bool Skip(char expected) {
    if (rest_.empty() || rest_[0] != expected) return false;
    rest_.remove_prefix(1);
    return true;
  }

  static bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

  bool SkipName() {
    constexpr size_t kShortestName = 3;
    if (Skip('<')) {
      const size_t end = rest_.find('>');
      if (end == rest_.npos) return false;
      rest_.remove_prefix(end + 1);
      return true;
    }
    const size_t length = std::find_if_not(rest_.begin(), rest_.end(), IsLetter) - rest_.begin();
    rest_.remove_prefix(length);
    return length >= kShortestName;
  }

  bool ReadNumber(int least, int most, int* number) {
    int value = 0;
    size_t digits = 0;
    for (; digits < rest_.size() && rest_[digits] >= '0' && rest_[digits] <= '9' && value <= most; ++digits)
      value = value * 10 + (rest_[digits] - '0');
    rest_.remove_prefix(digits);
    *number = value;
    return digits != 0 && value >= least && value <= most;
  }

  // "hh", "hh:mm" or "hh:mm:ss" with a sign before it or without.
  bool ReadSignedTime(int mostHours, int64_t* seconds) {
    const bool negative = Skip('-');
    if (!negative) Skip('+');
    int hours = 0, minutes = 0, rest = 0;
    if (!ReadNumber(0, mostHours, &hours)) return false;
    if (Skip(':') && !ReadNumber(0, 59, &minutes)) return false;
    if (Skip(':') && !ReadNumber(0, 59, &rest)) return false;
    *seconds = (hours * 60 + minutes) * 60 + rest;
    if (negative) *seconds = -*seconds;
    return true;
  }

  bool ReadDay(ChangeDay* change) {
    if (Skip('J')) {
      change->kind = ChangeDay::Kind::kWithoutLeapDay;
      return ReadNumber(1, 365, &change->day);
    }
    if (!Skip('M')) {
      change->kind = ChangeDay::Kind::kFromZero;
      return ReadNumber(0, 365, &change->day);
    }
    change->kind = ChangeDay::Kind::kWeekday;
    return ReadNumber(1, 12, &change->month) && Skip('.') && ReadNumber(1, 5, &change->week) && Skip('.') &&
           ReadNumber(0, 6, &change->day);
  }

  bool ReadChange(ChangeDay* change) {
    constexpr int kMostHours = 167;
    if (!Skip(',') || !ReadDay(change)) return false;
    return !Skip('/') || ReadSignedTime(kMostHours, &change->secondsOfDay);
  }

  std::string_view rest_;
};

sys_days FindDay(const ChangeDay& change, year inYear) {
  const sys_days newYear = inYear / January / 1;
  switch (change.kind) {
    case ChangeDay::Kind::kFromZero:
      return newYear + days{change.day};
    case ChangeDay::Kind::kWithoutLeapDay:
      return newYear + days{change.day - 1 + (inYear.is_leap() && change.day >= 60)};
    case ChangeDay::Kind::kWeekday:
      break;
  }
  const auto inMonth = inYear / month(change.month);
  const weekday wanted(change.day);
  constexpr int kLastWeek = 5;
  if (change.week == kLastWeek) return sys_days{inMonth / wanted[last]};
  return sys_days{inMonth / wanted[change.week]};
}

/// An instant at which the offset changes to `secondsEast`.
struct Change {
  int64_t utc;
  int32_t secondsEast;
};

Change FindChange(const ChangeDay& change, int inYear, int32_t eastBefore, int32_t eastAfter) {
  const int64_t localDays = FindDay(change, year(inYear)).time_since_epoch().count();
  return {localDays * kSecondsPerDay + change.secondsOfDay - eastBefore, eastAfter};
}

// The changes of the year and of its neighbours, in their order: one before `utc` and one behind it are among them.
ZonePeriod FindPeriodOfSummerRule(const ZoneRule& rule, int64_t utc) {
  const sys_days day = floor<days>(sys_seconds{seconds{utc}});
  const int middle = static_cast<int>(year_month_day{day}.year());
  std::array<Change, 6> changes;
  size_t count = 0;
  for (int inYear = middle - 1; inYear <= middle + 1; ++inYear) {
    changes[count++] = FindChange(rule.toSummer, inYear, rule.standardEast, rule.summerEast);
    changes[count++] = FindChange(rule.toStandard, inYear, rule.summerEast, rule.standardEast);
  }
  // Stable: summer time that ends when the next one begins does not end at all.
  std::stable_sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) { return a.utc < b.utc; });
  ZonePeriod period{.secondsEast = rule.standardEast};
  for (const Change& change : changes) {
    if (change.utc > utc) {
      period.until = change.utc;
      break;
    }
    period.from = change.utc;
    period.secondsEast = change.secondsEast;
  }
  return period;
}

}  // namespace

std::optional<ZonePeriod> FindPeriodInRule(std::string_view text, int64_t utc) {
  constexpr int64_t kFarthest = int64_t{20'000} * 366 * kSecondsPerDay;  // what a calendar year can hold
  ZoneRule rule;
  if (!RuleReader(text).ReadRule(&rule)) return std::nullopt;
  if (!rule.hasSummer || utc < -kFarthest || utc > kFarthest) return ZonePeriod{.secondsEast = rule.standardEast};
  return FindPeriodOfSummerRule(rule, utc);
}

}  // namespace qel::layer
