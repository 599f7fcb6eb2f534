// The handler of the signals of faults: to the innermost guard of the thread, to the filter, or to who had the signal
// before.
//
// Problem: a C++ exception cannot be thrown out of a signal handler in all cases, and a handler may call almost
// nothing.
//
// Idea: the handler throws nothing. It notes the fault in the guard's frame, changes the registers that the kernel will
// restore, and returns: the thread goes on in fault_thunk (frame.S), outside the handler, with the guard in EBP.
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"

using fault::GuardFrame;
using fault::GuardState;

namespace qel::layer {
namespace {

constexpr uintptr_t kThrowerBytes = 16 * 1024;  // what the thrower and the unwinder may need

// A handler of the host that passes on what it does not want calls us as the former handler, with what it got itself.
// Only a delivery by the kernel returns to its trampoline: mov $__NR_rt_sigreturn, %eax; int $0x80.
bool IsDelivery(const void* returnAddress) {
  static constexpr unsigned char kTrampoline[] = {0xB8, SYS_rt_sigreturn, 0, 0, 0, 0xCD, 0x80};
  return std::memcmp(returnAddress, kTrampoline, sizeof kTrampoline) == 0;
}

// Where the thrower runs: below the interrupted frame, or on the spare stack when there is no room or the thread is on
// a stack that we do not know.
uintptr_t FindThrowerStack(const FaultThread& thread, const GuardFrame& guard) {
  const bool hasRoom = guard.record.ExceptionCode != EXCEPTION_STACK_OVERFLOW && thread.stack.Contains(guard.esp) &&
                       guard.esp - thread.stack.low > kThrowerBytes;
  const uintptr_t spare = SpareStackTop(thread);
  return hasRoom || !spare ? fault::StackBelow(guard.esp) : spare;
}

// Lets the thread go on in `place` with this EBP.
void GoOn(ucontext_t& machine, const char* place, uintptr_t ebp, uintptr_t esp) {
  greg_t* registers = machine.uc_mcontext.gregs;
  ClearPendingState(machine);
  registers[REG_EIP] = reinterpret_cast<greg_t>(place);
  registers[REG_EBP] = static_cast<greg_t>(ebp);
  registers[REG_ESP] = static_cast<greg_t>(esp);
}

// The exception will start at the guard itself, on the spare stack if there is one: whatever stack the search ran on
// may be what failed.
void Recover(GuardFrame& guard, const FaultThread& thread, ucontext_t& machine) {
  guard.state = GuardState::kRecovering;
  const uintptr_t spare = SpareStackTop(thread);
  guard.landing = spare ? spare : fault::StackBelow(reinterpret_cast<uintptr_t>(&guard));
  GoOn(machine, fault_frame_recover, guard.frame, guard.landing);
}

void Search(GuardFrame& guard, FaultThread& thread, int signal, const siginfo_t& info, ucontext_t& machine) {
  guard.BeginSearch();
  thread.faultInAllocator = thread.maskIsKnown = false;
  FillFault(guard.record, guard.context, signal, info, machine);
  guard.StartAt(guard.context);
  if (IsStackOverflow(thread, guard.record, guard.esp)) {
    guard.record.ExceptionCode = EXCEPTION_STACK_OVERFLOW;
  } else if (guard.record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION &&
             guard.record.ExceptionInformation[1] == guard.eip &&
             !fault_probe_read(reinterpret_cast<void*>(guard.esp))) {
    guard.StartAtCaller();
  }
  guard.landing = FindThrowerStack(thread, guard);
  GoOn(machine, fault_thunk, reinterpret_cast<uintptr_t>(&guard), guard.landing);
}

// The fault of a guard that cannot throw becomes that of the next one further out.
void PassOutwards(FaultThread& thread, int signal, siginfo_t* info, ucontext_t& machine) {
  GuardFrame& lost = *thread.innermost;
  GuardFrame* const outer = thread.innermost = lost.outer;
  if (!outer) return OfferLostFault(lost, signal, info, machine);
  outer->BeginSearch();
  outer->record = lost.record;
  outer->context = lost.context;
  outer->StartAt(lost.context);
  Recover(*outer, thread, machine);
}

void GiveToGuard(FaultThread& thread, int signal, siginfo_t* info, ucontext_t& machine) {
  GuardFrame& guard = *thread.innermost;
  switch (guard.state) {
    case GuardState::kSearching:
      return Recover(guard, thread, machine);
    case GuardState::kRecovering:
    case GuardState::kLost:
      return PassOutwards(thread, signal, info, machine);
    case GuardState::kQuiet:
    case GuardState::kThrowing:
    case GuardState::kThrown:
      return Search(guard, thread, signal, *info, machine);
  }
}

bool IsProbe(const char* instruction) {
  return instruction == fault_probe_read_instruction || instruction == fault_probe_write_instruction;
}

void Dispatch(int signal, siginfo_t* info, ucontext_t& machine, bool delivered) {
  FaultThread& thread = t_faultThread;
  if (!delivered) return PassToOriginal(signal, info, &machine);
  if (info->si_code <= 0) {  // sent, not of an instruction
    const LockWatchResult watch = ExamineLockWatch(signal, *info, machine);
    if (watch == LockWatchResult::kStuck) return GiveToGuard(thread, signal, info, machine);
    if (watch == LockWatchResult::kGoesOn) return;
    if (HandleAllocatorTimer(signal, *info, machine) || KeepSentSignal(signal, *info)) return;
    if (IsOwnAbort(signal, *info)) return OfferToFilter(signal, info, machine);
    return PassToHost(signal, info, &machine);
  }
  if (thread.innermost && IsFaultSignal(signal)) return GiveToGuard(thread, signal, info, machine);
  OfferToFilter(signal, info, machine);
}

}  // namespace

bool IsFaultSignal(int signal) { return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL; }

}  // namespace qel::layer

extern "C" __attribute__((used)) void fault_on_signal(int signal, siginfo_t* info, void* context) {
  using namespace qel::layer;
  ucontext_t& machine = *static_cast<ucontext_t*>(context);
  greg_t& eip = machine.uc_mcontext.gregs[REG_EIP];
  if (IsProbe(reinterpret_cast<const char*>(eip))) {
    eip = reinterpret_cast<greg_t>(fault_probe_failed);
    return;
  }
  const int savedErrno = errno;
  Dispatch(signal, info, machine, IsDelivery(__builtin_return_address(0)));
  errno = savedErrno;
}

namespace fault {

Translator ThreadTranslator() { return qel::layer::t_faultThread.translator; }
void SetThreadTranslator(Translator translator) { qel::layer::t_faultThread.translator = translator; }

GuardFrame* InnermostGuard() { return qel::layer::t_faultThread.innermost; }

void PrepareThrow(GuardFrame*) {
  const qel::layer::FaultThread& thread = qel::layer::t_faultThread;
  if (thread.maskIsKnown) qel::layer::RestorePassedMask();
  if (thread.faultInAllocator) qel::layer::ReleaseAllocatorLock();
}

void ProcessAttach() {}  // this runtime has made it all

void ClaimHandlers() { qel::layer::ClaimSignals(); }

int HoldCancellation() {
  int former = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former);
  return former;
}

void RestoreCancellation(int state) { pthread_setcancelstate(state, nullptr); }

}  // namespace fault

namespace {

void MakeInnermost(GuardFrame* guard) {
  qel::layer::FaultThread& thread = qel::layer::t_faultThread;
  guard->state = GuardState::kQuiet;
  guard->outer = thread.innermost;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  thread.innermost = guard;
}

// This is a function of its own so that the entry on a prepared thread calls nothing and saves no registers.
[[gnu::noinline]] void PrepareThreadAndEnter(GuardFrame* guard) {
  qel::layer::PrepareFaultThread();
  MakeInnermost(guard);
}

}  // namespace

extern "C" __attribute__((used)) void fault_enter(GuardFrame* guard) {
  if (qel::layer::t_faultThread.ready) [[likely]]
    MakeInnermost(guard);
  else
    PrepareThreadAndEnter(guard);
}

extern "C" __attribute__((used)) void fault_leave(GuardFrame* guard) {
  qel::layer::t_faultThread.innermost = guard->outer;
}
