#include <time.h>

#include <atomic>
#include <chrono>

#include "qelibaselib/platform/linux/win32/sysinfoapi.h"

namespace {

constexpr LONGLONG kCountsPerSecond = 10'000'000;
constexpr long kNanosecondsPerCount = 100;
constexpr long kNanosecondsPerMs = 1'000'000;

timespec Now(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return now;
}

constexpr int64_t kSecondsPerQuarter = int64_t{15} * 60;
// The quarter in the upper bits, the offset plus a bias in the lower 20; 0 is no quarter of this century.
constexpr int kOffsetBits = 20;
constexpr int32_t kOffsetBias = 1 << (kOffsetBits - 1);
constinit std::atomic<uint64_t> g_zoneOffset{0};

// The C library is asked for the time zone only once in a quarter of an hour, at whose start clocks are put on or back:
// it takes a lock of its own, which a fault inside it would leave held for every later line and report.
int32_t SecondsEastOfUtc(time_t utc) {
  const int64_t quarter = utc / kSecondsPerQuarter;
  const uint64_t known = g_zoneOffset.load(std::memory_order_relaxed);
  if (static_cast<int64_t>(known >> kOffsetBits) == quarter)
    return static_cast<int32_t>(known & ((1u << kOffsetBits) - 1)) - kOffsetBias;
  tm local;
  const auto seconds = static_cast<int32_t>(localtime_r(&utc, &local) ? local.tm_gmtoff : 0);
  g_zoneOffset.store(static_cast<uint64_t>(quarter) << kOffsetBits | static_cast<uint32_t>(seconds + kOffsetBias),
                     std::memory_order_relaxed);
  return seconds;
}

}  // namespace

void GetLocalTime(LPSYSTEMTIME time) {
  using namespace std::chrono;
  const timespec now = Now(CLOCK_REALTIME);
  const sys_seconds local{seconds{now.tv_sec + SecondsEastOfUtc(now.tv_sec)}};
  const sys_days day = floor<days>(local);
  const year_month_day date{day};
  const hh_mm_ss<seconds> clock{local - day};
  *time = {static_cast<WORD>(int{date.year()}),          static_cast<WORD>(unsigned{date.month()}),
           static_cast<WORD>(weekday{day}.c_encoding()), static_cast<WORD>(unsigned{date.day()}),
           static_cast<WORD>(clock.hours().count()),     static_cast<WORD>(clock.minutes().count()),
           static_cast<WORD>(clock.seconds().count()),   static_cast<WORD>(now.tv_nsec / kNanosecondsPerMs)};
}

// In steps of the system's timer, as on Windows: costs a quarter of the exact time.
DWORD GetTickCount() {
  const timespec now = Now(CLOCK_MONOTONIC_COARSE);
  return static_cast<DWORD>(now.tv_sec * 1000ull + now.tv_nsec / kNanosecondsPerMs);
}

BOOL QueryPerformanceCounter(PLARGE_INTEGER count) {
  const timespec now = Now(CLOCK_MONOTONIC);
  count->QuadPart = now.tv_sec * kCountsPerSecond + now.tv_nsec / kNanosecondsPerCount;
  return TRUE;
}

BOOL QueryPerformanceFrequency(PLARGE_INTEGER frequency) {
  frequency->QuadPart = kCountsPerSecond;
  return TRUE;
}
