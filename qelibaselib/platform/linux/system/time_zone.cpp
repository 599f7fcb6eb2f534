#include "qelibaselib/platform/linux/system/time_zone.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/system/zone_file.h"
#include "qelibaselib/platform/linux/system/zone_rule.h"

namespace qel::layer {
namespace {

constexpr char kSystemZone[] = "/etc/localtime";
constexpr char kZoneFolder[] = "/usr/share/zoneinfo";
constexpr size_t kMostFileBytes = 16 << 10;  // the largest known zone has a quarter of it; without use of the heap
constexpr int kSecondsPerMinute = 60;

/// The offset of one minute under one text of TZ. Two threads may write at the same time, and a reader may meet one
/// word of each; the second word is therefore stored mixed with the first, and a mixture of two writers does not show
/// the pattern.
class KeptOffset {
 public:
  bool Find(uint64_t circumstances, int32_t* secondsEast) const {
    const uint64_t first = first_.load(std::memory_order_relaxed);
    const uint64_t second = second_.load(std::memory_order_relaxed) ^ first;
    *secondsEast = static_cast<int32_t>(second);
    return first == circumstances && second >> 32 == kPattern;
  }
  void Keep(uint64_t circumstances, int32_t secondsEast) {
    first_.store(circumstances, std::memory_order_relaxed);
    second_.store(circumstances ^ (kPattern << 32 | static_cast<uint32_t>(secondsEast)), std::memory_order_relaxed);
  }

 private:
  static constexpr uint64_t kPattern = 0x5A6F6E65;
  std::atomic<uint64_t> first_{0}, second_{0};
};
constinit KeptOffset g_kept;

// A number for the minute and the text; 64 bits, so that two circumstances practically never share one.
uint64_t HashCircumstances(const char* zone, time_t minute) {
  constexpr uint64_t kPrime = 0x100000001B3;
  uint64_t hash = 0xCBF29CE484222325 ^ static_cast<uint64_t>(minute);
  hash = (hash ^ (zone != nullptr)) * kPrime;
  for (; zone && *zone; ++zone) hash = (hash ^ static_cast<unsigned char>(*zone)) * kPrime;
  return hash ^ hash >> 32;
}

std::string_view ReadFile(const char* path, char (&bytes)[kMostFileBytes]) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0) return {};
  const ssize_t got = RetryOnInterrupt([&] { return read(file.get(), bytes, sizeof bytes); });
  return got > 0 ? std::string_view(bytes, got) : std::string_view();
}

// Of a program with more rights than its user, TZ must not open just any file.
bool MayOpen(const char* name) {
  return getauxval(AT_SECURE) == 0 || (name[0] != '/' && std::strstr(name, "..") == nullptr);
}

std::optional<ZonePeriod> FindPeriodOfFile(const char* name, time_t utc) {
  char bytes[kMostFileBytes];
  if (name[0] == '/') return FindPeriodInZoneFile(ReadFile(name, bytes), utc);
  const char* const told = secure_getenv("TZDIR");
  const char* const folder = told && *told ? told : kZoneFolder;
  char path[1024];
  const int length = std::snprintf(path, sizeof path, "%s/%s", folder, name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) return std::nullopt;
  return FindPeriodInZoneFile(ReadFile(path, bytes), utc);
}

}  // namespace

ZonePeriod FindZonePeriod(const char* zone, time_t utc) {
  if (!zone) return FindPeriodOfFile(kSystemZone, utc).value_or(ZonePeriod{});
  if (*zone == ':') ++zone;
  if (!*zone) return {};
  if (MayOpen(zone))
    if (const auto period = FindPeriodOfFile(zone, utc)) return *period;
  return FindPeriodInRule(zone, utc).value_or(ZonePeriod{});
}

int32_t FindSecondsEast(time_t utc) {
  const char* const zone = std::getenv("TZ");
  const time_t minute = utc / kSecondsPerMinute;
  const uint64_t circumstances = HashCircumstances(zone, minute);
  int32_t secondsEast = 0;
  if (g_kept.Find(circumstances, &secondsEast)) return secondsEast;
  const ZonePeriod period = FindZonePeriod(zone, utc);
  // In the minute of a change every line asks anew.
  const time_t start = minute * kSecondsPerMinute;
  if (period.from <= start && period.until >= start + kSecondsPerMinute) g_kept.Keep(circumstances, period.secondsEast);
  return period.secondsEast;
}

}  // namespace qel::layer
