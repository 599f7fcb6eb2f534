#include "qelibaselib/platform/linux/system/zone_file.h"

#include <algorithm>

#include "qelibaselib/platform/linux/system/zone_rule.h"

namespace qel::layer {
namespace {

constexpr size_t kHeaderBytes = 44, kTypeBytes = 6;

int64_t ReadBigEndian(std::string_view bytes, size_t at, size_t width) {
  uint64_t value = static_cast<signed char>(bytes[at]) < 0 ? ~uint64_t{0} : 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return static_cast<int64_t>(value);
}

/// One of the blocks of a zone file: the first has times of four bytes, a second one of eight.
class ZoneBlock {
 public:
  /// False when the bytes do not hold a whole block.
  bool Parse(std::string_view bytes, size_t timeBytes) {
    if (bytes.size() < kHeaderBytes || !bytes.starts_with("TZif")) return false;
    const auto count = [&](size_t at) { return static_cast<uint64_t>(ReadBigEndian(bytes, at, 4)) & 0xFFFFFFFF; };
    // In 64 bits, in which no sum of these products overflows.
    const uint64_t universal = count(20), standard = count(24), leaps = count(28), times = count(32), types = count(36),
                   characters = count(40);
    const uint64_t length =
        times * (timeBytes + 1) + types * kTypeBytes + characters + leaps * (timeBytes + 4) + standard + universal;
    if (types == 0 || length > bytes.size() - kHeaderBytes) return false;
    times_ = times, types_ = types, timeBytes_ = timeBytes;
    data_ = bytes.substr(kHeaderBytes, length);
    behind_ = bytes.substr(kHeaderBytes + length);
    return true;
  }

  std::string_view behind() const { return behind_; }

  /// False when a change names a type that is not there.
  bool FindPeriod(int64_t utc, ZonePeriod* period) const {
    size_t low = 0, high = times_;  // the changes before `low` are not behind `utc`, those from `high` on are
    while (low < high) {
      const size_t middle = low + (high - low) / 2;
      (TimeOf(middle) <= utc ? low : high) = TimeOf(middle) <= utc ? middle + 1 : middle;
    }
    if (low > 0) period->from = TimeOf(low - 1);
    if (low < times_) period->until = TimeOf(low);
    const size_t type = low > 0 ? static_cast<unsigned char>(data_[times_ * timeBytes_ + low - 1]) : 0;
    if (type >= types_) return false;
    period->secondsEast = static_cast<int32_t>(ReadBigEndian(data_, times_ * (timeBytes_ + 1) + type * kTypeBytes, 4));
    return true;
  }

  int64_t TimeOf(size_t index) const { return ReadBigEndian(data_, index * timeBytes_, timeBytes_); }

 private:
  std::string_view data_, behind_;
  size_t times_ = 0, types_ = 0, timeBytes_ = 4;
};

std::string_view TakeRule(std::string_view footer) {
  if (!footer.starts_with('\n')) return {};
  footer.remove_prefix(1);
  const size_t end = footer.find('\n');
  return end == footer.npos ? std::string_view{} : footer.substr(0, end);
}

bool IsPlausible(int32_t secondsEast) {
  constexpr int32_t kMost = 26 * 3600;  // beyond what any zone had
  return secondsEast >= -kMost && secondsEast <= kMost;
}

}  // namespace

std::optional<ZonePeriod> FindPeriodInZoneFile(std::string_view bytes, int64_t utc) {
  constexpr size_t kVersionAt = 4;
  ZoneBlock block;
  if (!block.Parse(bytes, 4)) return std::nullopt;
  std::string_view rule;
  if (bytes[kVersionAt] >= '2') {
    if (!block.Parse(block.behind(), 8)) return std::nullopt;
    rule = TakeRule(block.behind());
  }
  ZonePeriod period;
  if (!block.FindPeriod(utc, &period) || !IsPlausible(period.secondsEast)) return std::nullopt;
  if (period.until != INT64_MAX || rule.empty()) return period;
  const auto told = FindPeriodInRule(rule, utc);
  if (!told) return period;
  return ZonePeriod{std::max(period.from, told->from), told->until, told->secondsEast};
}

}  // namespace qel::layer
