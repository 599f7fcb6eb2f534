// A report that waits for a lock which nobody will give back.
//
// Problem: a report takes locks of the C library, of the loader and of the layer. The thread that holds one may have
// been stopped, or wait for the very thread that reports. The report would wait for ever, and with it the process that
// is about to end.
//
// Idea: while a thread reports, a timer sends it a signal every second. Two signals in a row that find it asleep for
// the same lock, without a time limit of its own, end the wait as a fault does: the guard of the section takes the
// exception, and the next section follows.
//
// Invariant: the lock itself is not touched; only the wait for it ends. A wait outside all guards of the report goes
// on.
#include <linux/futex.h>

#include <cerrno>
#include <utility>

#include "qelibaselib/platform/linux/base/report_depth.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/faults/thread_timer.h"

namespace qel::layer {
namespace {

constexpr long kPeriodMs = 1000;
const char g_timerMark = 0;

// The word that the interrupted thread sleeps on, by the arguments of its system call: it holds what the thread waits
// for to change. Null when the thread does something else, or has a time limit.
const uint32_t* FindAwaitedWord(const ucontext_t& machine) {
  const greg_t* registers = machine.uc_mcontext.gregs;
  const greg_t command = registers[REG_ECX] & FUTEX_CMD_MASK;
  const bool waits = registers[REG_EAX] == -EINTR && registers[REG_ESI] == 0 &&
                     (command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET);
  const auto* word = reinterpret_cast<const uint32_t*>(registers[REG_EBX]);
  if (!waits || registers[REG_EBX] % sizeof *word != 0 || fault_probe_read(word)) return nullptr;
  return __atomic_load_n(word, __ATOMIC_RELAXED) == static_cast<uint32_t>(registers[REG_EDX]) ? word : nullptr;
}

}  // namespace

void BeginLockWatch() {
  FaultThread::LockWatch& watch = t_faultThread.lockWatch;
  watch = {t_faultThread.innermost, nullptr, StartThreadTimer(g_timerMark, kPeriodMs)};
}

void EndLockWatch() {
  if (const auto timer = t_faultThread.lockWatch.timer) StopThreadTimer(*timer);
}

LockWatchResult ExamineLockWatch(int signal, const siginfo_t& info, const ucontext_t& machine) {
  if (!IsOfTimer(signal, info, g_timerMark)) return LockWatchResult::kNotOurs;
  FaultThread& thread = t_faultThread;
  const uint32_t* const word = FindAwaitedWord(machine);
  const bool isTheSame = word && word == std::exchange(thread.lockWatch.awaited, word);
  const bool isInSection = thread.innermost && thread.innermost != thread.lockWatch.outer;
  return isTheSame && isInSection && t_reportDepth != 0 ? LockWatchResult::kStuck : LockWatchResult::kGoesOn;
}

}  // namespace qel::layer
