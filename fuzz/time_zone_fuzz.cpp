// fuzz-sources: qelibaselib/platform/linux/system/zone_file.cpp qelibaselib/platform/linux/system/zone_rule.cpp

// Zone files and zone rules on any bytes: the first eight are the instant. What is found holds at that instant, and
// local time is not more than days from UTC.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "qelibaselib/platform/linux/system/zone_file.h"
#include "qelibaselib/platform/linux/system/zone_rule.h"

namespace {

void Check(const std::optional<qel::layer::ZonePeriod>& period, int64_t utc) {
  constexpr int32_t kMost = 48 * 3600;
  if (!period) return;
  if (period->from > utc || period->until < utc || std::abs(period->secondsEast) > kMost) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  int64_t utc;
  if (count < sizeof utc) return 0;
  std::memcpy(&utc, bytes, sizeof utc);
  const std::string_view text(reinterpret_cast<const char*>(bytes) + sizeof utc, count - sizeof utc);
  Check(qel::layer::FindPeriodInZoneFile(text, utc), utc);
  Check(qel::layer::FindPeriodInRule(text, utc), utc);
  return 0;
}
