// Calls of the core that the thread sanitizer does not see, led over to ones that it does. It watches the C library by
// standing before its functions; these definitions in the program stand before both.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

namespace {

bool IsOver(clockid_t clock, const timespec& until) {
  timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec != until.tv_sec ? now.tv_sec > until.tv_sec : now.tv_nsec >= until.tv_nsec;
}

// Not a point where pthread_cancel ends the thread, as the system call by its number is none.
int CloseSeen(int descriptor) {
  int former = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former);
  const int result = close(descriptor);
  pthread_setcancelstate(former, nullptr);
  return result;
}

}  // namespace

extern "C" {

// Of the lock with a limit that it does know, it does not know that a mutex whose owner has died is had, too. So the
// mutex is tried again and again.
int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* until) noexcept {
  constexpr timespec kPause = {0, 100'000};
  for (;;) {
    const int result = pthread_mutex_trylock(mutex);
    if (result != EBUSY) return result;
    if (IsOver(clock, *until)) return ETIMEDOUT;
    nanosleep(&kPause, nullptr);
  }
}

// A descriptor that is closed by the number of the system call (CloseDescriptor) would stay open for it, and the next
// file under its number look like the same one used by two threads. No call takes more than six arguments; those that
// were not given are read all the same, as the C library does.
long syscall(long number, ...) noexcept {
  static auto* const next = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
  long given[6];
  va_list list;
  va_start(list, number);
  for (long& argument : given) argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_close) return CloseSeen(static_cast<int>(given[0]));
  return next(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}

}  // extern "C"
