#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace {

// A program in the background would be stopped for writing, and a terminal that is held would keep the thread.
void RingBell() {
  if (!isatty(STDERR_FILENO) || tcgetpgrp(STDERR_FILENO) != getpgrp()) return;
  pollfd terminal = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&terminal, 1, 0) != 1 || (terminal.revents & POLLOUT) == 0) return;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "\a", 1);
}

void SleepFor(DWORD durationMs) {
  timespec left = {static_cast<time_t>(durationMs / 1000), static_cast<long>(durationMs % 1000 * 1'000'000)};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

}  // namespace

BOOL Beep(DWORD frequency, DWORD durationMs) {
  constexpr DWORD kLowest = 37, kHighest = 32767;
  if (frequency < kLowest || frequency > kHighest) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  RingBell();
  SleepFor(durationMs);
  return TRUE;
}
