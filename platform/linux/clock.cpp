#include <time.h>

#include "platform/linux/system_info.h"

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
  const timespec now = Now(CLOCK_REALTIME);
  tm local;
  localtime_r(&now.tv_sec, &local);
  *time = {static_cast<WORD>(local.tm_year + 1900), static_cast<WORD>(local.tm_mon + 1),
           static_cast<WORD>(local.tm_wday),        static_cast<WORD>(local.tm_mday),
           static_cast<WORD>(local.tm_hour),        static_cast<WORD>(local.tm_min),
           static_cast<WORD>(local.tm_sec),         static_cast<WORD>(now.tv_nsec / kNanosecondsPerMs)};
}

DWORD GetTickCount() {
  const timespec now = Now(CLOCK_MONOTONIC);
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
