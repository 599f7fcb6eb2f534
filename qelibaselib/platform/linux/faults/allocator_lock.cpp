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

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/thread_timer.h"

namespace qel::layer {
namespace {

constexpr long kPatienceMs = 500;
constexpr size_t kProbeBytes = 4096;  // more than the thread's own cache of free blocks serves

const char g_timerMark = 0;  // its address tells our timer's signals

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
  const auto timer = StartThreadTimer(g_timerMark, kPatienceMs);
  void* volatile memory = std::malloc(kProbeBytes);
  std::free(memory);
  if (timer) StopThreadTimer(*timer);
}

bool HandleAllocatorTimer(int signal, const siginfo_t& info, const ucontext_t& machine) {
  if (!IsOfTimer(signal, info, g_timerMark)) return false;
  if (uint32_t* word = LockWaitedFor(machine)) {
    __atomic_store_n(word, 0, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }
  return true;
}

}  // namespace qel::layer
