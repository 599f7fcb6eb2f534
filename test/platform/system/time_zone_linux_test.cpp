// Local time against the C library's, for every zone of the machine and for rules; and when a change is seen.
#include <dlfcn.h>
#include <sys/auxv.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>

#include "qelibaselib/platform/linux/system/time_zone.h"
#include "qelibaselib/platform/linux/system/zone_file.h"
#include "qelibaselib/platform/linux/system/zone_rule.h"
#include "test/support/library.h"

using qel::layer::FindPeriodInRule;
using qel::layer::FindPeriodInZoneFile;
using qel::layer::FindZonePeriod;

namespace {
bool g_hasMoreRights = false;  // than the user who started the program
}
// Stands before the C library's for the readers that are linked in once more.
extern "C" unsigned long getauxval(unsigned long type) noexcept {
  if (type == AT_SECURE && g_hasMoreRights) return 1;
  static const auto real = reinterpret_cast<unsigned long (*)(unsigned long)>(dlsym(RTLD_NEXT, "getauxval"));
  return real(type);
}

namespace {

// TZ as it was comes back at the end.
class ZoneScope {
 public:
  ZoneScope() : before_(std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt) {}
  ~ZoneScope() { Set(before_ ? before_->c_str() : nullptr); }
  ZoneScope(const ZoneScope&) = delete;
  ZoneScope& operator=(const ZoneScope&) = delete;
  static void Set(const char* zone) {
    zone ? setenv("TZ", zone, 1) : unsetenv("TZ");
    tzset();
  }

 private:
  const std::optional<std::string> before_;
};

int32_t AskLibrary(time_t utc) {
  tm local;
  return localtime_r(&utc, &local) ? static_cast<int32_t>(local.tm_gmtoff) : 0;
}

// 1902 to 2100, more of them near today, and a winter and a summer far ahead.
std::vector<time_t> SomeInstants() {
  std::mt19937_64 random(5);
  std::vector<time_t> instants;
  for (int i = 0; i < 150; ++i) instants.push_back(-2'145'916'800 + static_cast<time_t>(random() % 6'248'707'200));
  for (int i = 0; i < 150; ++i) instants.push_back(1'500'000'000 + static_cast<time_t>(random() % 1'000'000'000));
  instants.insert(instants.end(), {190'300'000'000, 190'315'000'000});
  instants.push_back(1'709'250'000);  // a leap day
  return instants;
}

TEST(TimeZone, EveryZoneOfTheMachine) {
  const std::filesystem::path folder = "/usr/share/zoneinfo";
  if (!std::filesystem::exists(folder)) GTEST_SKIP() << "needs the zones' files";
  const ZoneScope scope;
  const auto instants = SomeInstants();
  size_t zones = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().lexically_relative(folder).string();
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (!bytes.starts_with("TZif")) continue;
    ZoneScope::Set(name.c_str());
    ++zones;
    for (const time_t utc : instants) {
      if (name.starts_with("right/") && utc < 190'000'000'000) continue;  // leap seconds shift the changes
      const auto period = FindPeriodInZoneFile(bytes, utc);
      ASSERT_TRUE(period) << name;
      ASSERT_EQ(period->secondsEast, AskLibrary(utc)) << name << " at " << utc;
      ASSERT_TRUE(period->from <= utc && utc < period->until) << name << " at " << utc;
    }
  }
  EXPECT_GT(zones, 100u);
}

TEST(TimeZone, Rules) {
  const ZoneScope scope;
  for (const char* const rule :
       {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "AEST-10AEDT,M10.1.0,M4.1.0/3", "<+0330>-3:30", "EST5EDT",
        "XXX3YYY4,0/0,J365/23", "IST-2IDT,M3.4.4/26,M10.5.0", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
        "AAA12:34:56BBB,J60/2:03:04,J300", "AAA-14BBB-15,59,300"}) {
    ZoneScope::Set(rule);
    for (const time_t utc : SomeInstants()) {
      if (utc < 31'536'000) continue;  // the C library takes all years up to 1970 for that one
      const auto period = FindPeriodInRule(rule, utc);
      ASSERT_TRUE(period) << rule;
      EXPECT_EQ(period->secondsEast, AskLibrary(utc)) << rule << " at " << utc;
    }
  }
  for (const char* const text :
       {"", "AB1", "CET", "CET-", "CET-25", "CET-1CEST,", "CET-1CEST,M3.5.0", "CET-1CEST,M13.5.0,J1",
        "CET-1CEST,M3.6.0,J1", "CET-1CEST,J0,J1", "CET-1CEST,366,1", "CET-1CEST,1,2x", "<CET", "CET-1CEST,1/168,2"})
    EXPECT_FALSE(FindPeriodInRule(text, 0)) << text;
}

TEST(TimeZone, WhatNamesNoZoneIsUtc) {
  for (const char* const zone : {"", ":", "No/Such_Zone", "/no/such/file", "/", "\xFF", "../../etc/passwd"})
    EXPECT_EQ(FindZonePeriod(zone, 1'700'000'000).secondsEast, 0) << zone;
  for (const char* const bytes : {"", "TZif", "TZif2", "nonsense"}) EXPECT_FALSE(FindPeriodInZoneFile(bytes, 0));
  // Counts whose product with the size of an entry is small again in 32 bits.
  std::string huge = "TZif" + std::string(40, '\0') + std::string(200, '\0');
  huge.replace(32, 8, "\x33\x33\x33\x34\x00\x00\x00\x01", 8);
  EXPECT_FALSE(FindPeriodInZoneFile(huge, 0));
  EXPECT_EQ(FindZonePeriod(":CET-1", 0).secondsEast, 3600);
}

TEST(TimeZone, OfAProgramWithMoreRightsIsNotJustAnyFile) {
  constexpr time_t kWinter = 1'700'000'000;
  if (FindZonePeriod("Asia/Tokyo", kWinter).secondsEast == 0) GTEST_SKIP() << "needs the zones' files";
  for (const char* const zone : {"/usr/share/zoneinfo/Asia/Tokyo", "../zoneinfo/Asia/Tokyo"}) {
    EXPECT_EQ(FindZonePeriod(zone, kWinter).secondsEast, 9 * 3600) << zone;
    g_hasMoreRights = true;
    EXPECT_EQ(FindZonePeriod(zone, kWinter).secondsEast, 0) << zone;
    EXPECT_EQ(FindZonePeriod("Asia/Tokyo", kWinter).secondsEast, 9 * 3600);
    g_hasMoreRights = false;
  }
}

// The local time of a whole hour's distance, as minutes of the day.
int LocalMinutes() {
  SYSTEMTIME time = {};
  GetLocalTime(&time);
  return time.wHour * 60 + time.wMinute;
}
int MinutesBetween(int before, int after) { return (after - before + 24 * 60) % (24 * 60); }

TEST(TimeZone, AChangeOfTheVariableIsSeenAtOnce) {
  const ZoneScope scope;
  ZoneScope::Set("AAA0");
  const int before = LocalMinutes();
  setenv("TZ", "AAA-5", 1);  // and nobody tells the C library
  EXPECT_NEAR(MinutesBetween(before, LocalMinutes()), 300, 1);
  setenv("TZ", "AAA-7", 1);
  EXPECT_NEAR(MinutesBetween(before, LocalMinutes()), 420, 1);
}

TEST(TimeZone, SummerTimeBeginsInTheMiddleOfAMinute) {
  const ZoneScope scope;
  const time_t change = std::time(nullptr) + 2;
  tm day;
  gmtime_r(&change, &day);
  const int second = day.tm_hour * 3600 + day.tm_min * 60 + day.tm_sec;
  char zone[100];
  std::snprintf(zone, sizeof zone, "AAA0BBB-3,%d/%d:%02d:%02d,%d", day.tm_yday, second / 3600, second / 60 % 60,
                second % 60, (day.tm_yday + 100) % 365);
  ZoneScope::Set(zone);
  const int before = LocalMinutes();
  while (std::time(nullptr) < change) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NEAR(MinutesBetween(before, LocalMinutes()), 180, 1);
}

}  // namespace
