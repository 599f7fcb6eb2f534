/// @file
/// A timer that sends the thread that made it a SIGSEGV, which is never blocked, again and again.
#pragma once
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <optional>

namespace qel::layer {

// Of the kernel's own: the C library's would allocate.
struct ThreadTimer {
  int id;
};

/// `mark`, by its address, tells this timer's signals from others. Nothing when there is no timer to be had.
inline std::optional<ThreadTimer> StartThreadTimer(const char& mark, long periodMs) {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = SIGSEGV;
  event.sigev_value.sival_ptr = const_cast<char*>(&mark);
  event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
  ThreadTimer timer;
  if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer.id) != 0) return std::nullopt;
  const long seconds = periodMs / 1000, ns = periodMs % 1000 * 1'000'000;
  const long each[] = {seconds, ns, seconds, ns};
  syscall(SYS_timer_settime, timer.id, 0, each, nullptr);
  return timer;
}

inline void StopThreadTimer(ThreadTimer timer) { syscall(SYS_timer_delete, timer.id); }

inline bool IsOfTimer(int signal, const siginfo_t& info, const char& mark) {
  return signal == SIGSEGV && info.si_code == SI_TIMER && info.si_value.sival_ptr == &mark;
}

}  // namespace qel::layer
