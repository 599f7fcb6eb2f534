// The lock of the C library's allocator after a fault inside the allocator.
//
// Problem: a damaged heap makes malloc or free fault while it holds a lock that is not recursive. The guard ends the
// call, nobody unlocks, and the next allocation of this thread, be it for the report, waits for ever; every other
// thread that allocates from the same part of the heap waits with it. (On Windows the heap's lock is recursive, and
// belongs to the thread that faulted.)
//
// Idea: a thread whose fault passed a function of the allocator makes one allocation before it throws, under a timer
// that sends it a signal. If the signal finds it in the wait for a lock, nobody has unlocked it for that long: the
// handler unlocks it, and the thread goes on as its owner.
//
// What is left: the heap may be damaged, and the next allocation may fault again; that costs a report the section that
// allocates. The lock of another, living thread is taken only if that thread has not moved for half a second inside an
// allocation.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "qelibaselib/platform/linux/faults/fault_internal.h"

namespace qel::layer {
namespace {

constexpr long kPatienceNs = 500'000'000;
constexpr size_t kProbeBytes = 4096;  // more than the thread's own cache of free blocks serves

const char g_timerMark = 0;  // its address tells our timer's signals

// A timer of the calling thread, of the kernel's own: the C library's would allocate.
class LockTimer {
 public:
  LockTimer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGSEGV;
    event.sigev_value.sival_ptr = const_cast<char*>(&g_timerMark);
    event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
    made_ = syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &id_) == 0;
    struct {
      long intervalSeconds, intervalNs, seconds, ns;
    } const each = {0, kPatienceNs, 0, kPatienceNs};
    if (made_) syscall(SYS_timer_settime, id_, 0, &each, nullptr);
  }
  LockTimer(const LockTimer&) = delete;
  LockTimer& operator=(const LockTimer&) = delete;
  ~LockTimer() {
    if (made_) syscall(SYS_timer_delete, id_);
  }

 private:
  int id_ = 0;
  bool made_ = false;
};

// The lock word that the interrupted thread sleeps on, by the arguments of its system call; null when it does not. The
// C library's simple locks hold 2 while somebody waits.
uint32_t* LockWaitedFor(const ucontext_t& machine) {
  constexpr uint32_t kLockedWithWaiters = 2;
  const greg_t* registers = machine.uc_mcontext.gregs;
  const bool waits = registers[REG_EAX] == -EINTR && (registers[REG_ECX] & FUTEX_CMD_MASK) == FUTEX_WAIT &&
                     static_cast<uint32_t>(registers[REG_EDX]) == kLockedWithWaiters;
  auto* word = reinterpret_cast<uint32_t*>(registers[REG_EBX]);
  return waits && __atomic_load_n(word, __ATOMIC_RELAXED) == kLockedWithWaiters ? word : nullptr;
}

}  // namespace

void ReleaseAllocatorLock() {
  t_faultThread.faultInAllocator = false;
  const LockTimer timer;
  void* volatile memory = std::malloc(kProbeBytes);
  std::free(memory);
}

bool HandleAllocatorTimer(int signal, const siginfo_t& info, const ucontext_t& machine) {
  if (signal != SIGSEGV || info.si_code != SI_TIMER || info.si_value.sival_ptr != &g_timerMark) return false;
  if (uint32_t* word = LockWaitedFor(machine)) {
    __atomic_store_n(word, 0, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }
  return true;
}

}  // namespace qel::layer
