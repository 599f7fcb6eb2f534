#include <time.h>

#include <chrono>

#include "qelibaselib/platform/linux/system/time_zone.h"
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

}  // namespace

void GetLocalTime(LPSYSTEMTIME time) {
  using namespace std::chrono;
  const timespec now = Now(CLOCK_REALTIME);
  const sys_seconds local{seconds{now.tv_sec + qel::layer::FindSecondsEast(now.tv_sec)}};
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
  constexpr DWORD kMsPerSecond = 1000;
  const timespec now = Now(CLOCK_MONOTONIC_COARSE);
  return static_cast<DWORD>(now.tv_sec) * kMsPerSecond + static_cast<DWORD>(now.tv_nsec / kNanosecondsPerMs);
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
