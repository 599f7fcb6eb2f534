/// @file
/// What the files of the fault front end share.
///
/// fault_handler.cpp receives the signals; thread_stacks.cpp keeps the stacks that it needs; fault_record.cpp
/// translates what the kernel saved; unhandled.cpp asks the filter; signal_owners.cpp knows who had the signals before;
/// signal_masks.cpp keeps them from being blocked; signal_frames.cpp and allocator_lock.cpp put right what a fault
/// leaves behind. A report gets its descriptors from report_descriptors.cpp and is freed by lock_watch.cpp from locks
/// that nobody gives back.
#pragma once
#include <ucontext.h>

#include <csignal>
#include <cstdint>

#include "qelibaselib/platform/fault/guard_frame.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"

namespace qel::layer {

/// Where a thrower starts that cannot use the thread's own stack; 0 when there is no such place.
uintptr_t SpareStackTop(const FaultThread& thread);

/// While it lives, the thread is taken to run on the given stack.
class OnStack {
 public:
  explicit OnStack(StackBounds bounds) : former_(t_faultThread.stack) { t_faultThread.stack = bounds; }
  OnStack(const OnStack&) = delete;
  OnStack& operator=(const OnStack&) = delete;
  ~OnStack() { t_faultThread.stack = former_; }

 private:
  const StackBounds former_;
};
/// Runs `body` on the thread's signal stack, on which the next signal then goes on too; in place where it is on that
/// stack already or there is none. For handlers, which the host may have given a stack of a few kilobytes.
void CallOnSignalStack(void (*body)(void* argument), void* argument);

/// The handler of all signals that we have; and its entry, which the kernel calls.
extern "C" __attribute__((visibility("hidden"))) void fault_on_signal(int signal, siginfo_t* info, void* machine);
extern "C" __attribute__((visibility("hidden"))) void fault_signal_entry(int signal, siginfo_t* info, void* machine);

/// The signals that an instruction causes; these go to the guards. Those that end a process by its own decision
/// besides.
inline constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
inline constexpr int kClaimedSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
bool IsFaultSignal(int signal);

/// Puts the handler in place where it is not.
void ClaimSignals();
/// A fault whose signal is blocked ends the process, whoever would handle it.
void UnblockSignals();
/// What is not ours: to the host's present handler; to the one that we found at the first time.
void PassToHost(int signal, siginfo_t* info, void* machine);
void PassToOriginal(int signal, siginfo_t* info, void* machine);

/// Takes the descriptors that are kept for reports, where they are not there and no report needs them now. See
/// report_descriptors.cpp.
void KeepReportDescriptors();
/// Leaves them to a report; keeps them again after the last one.
void GiveUpReportDescriptors();
void TakeBackReportDescriptors();

/// The call of the kernel for the mask of this thread, without any wish. Returns an error number.
int ChangeKernelMask(int how, const sigset_t* set, sigset_t* former);
/// Takes the signals of faults out of the set; returns them as bits.
uint32_t RemoveFaultSignals(sigset_t& set);
void AddFaultSignals(sigset_t& set, uint32_t bits);
/// Whether the stack pointer stands below a handler of the host that is running.
bool IsInHostHandler(const FaultThread& thread, uintptr_t esp);
/// Whether the host wants a sent signal kept back now; if so, it is kept for it. See signal_masks.cpp.
bool KeepSentSignal(int signal, const siginfo_t& info);

/// A fault that no guard takes: to the filter, then to the host.
void OfferToFilter(int signal, siginfo_t* info, ucontext_t& machine);
/// The same for one that a guard had taken and could not throw.
void OfferLostFault(const fault::GuardFrame& guard, int signal, siginfo_t* info, ucontext_t& machine);
/// Whether the signal is of an abort() of this process itself.
bool IsOwnAbort(int signal, const siginfo_t& info);
/// Calls the filter of SetUnhandledExceptionFilter, if there is one; otherwise EXCEPTION_CONTINUE_SEARCH.
LONG CallUnhandledFilter(EXCEPTION_POINTERS* pointers);

/// Fills what Windows would deliver for the signal; see IsStackOverflow for the one case that needs the thread.
void FillFault(EXCEPTION_RECORD& record, CONTEXT& context, int signal, const siginfo_t& info,
               const ucontext_t& machine);
/// Puts the context's general registers into the interrupted thread.
void ApplyContext(ucontext_t& machine, const CONTEXT& context);
/// Lets the thread go on with an empty x87 stack, no pending floating-point exception and a clear direction flag. The
/// control words stay.
void ClearPendingState(ucontext_t& machine);
/// Whether the interrupted instruction is over: returning from the handler does not repeat the fault.
bool IsPastInstruction(int signal, const ucontext_t& machine);
bool IsStackOverflow(const FaultThread& thread, const EXCEPTION_RECORD& record, uintptr_t esp);

/// Gives the thread the mask back that it had inside the guard when the host's handler interrupted it.
void RestorePassedMask();
/// Makes sure that the thread, whose fault passed the allocator, does not wait for the allocator's lock for ever.
void ReleaseAllocatorLock();
/// Whether the signal is of our own timer; if so, the lock that the thread waits for is released.
bool HandleAllocatorTimer(int signal, const siginfo_t& info, const ucontext_t& machine);

/// Watches the calling thread, which reports, for locks that it cannot have; see lock_watch.cpp.
void BeginLockWatch();
void EndLockWatch();
enum class LockWatchResult { kNotOurs, kGoesOn, kStuck };
/// Whether the signal is of that watch; kStuck: the wait has to end.
LockWatchResult ExamineLockWatch(int signal, const siginfo_t& info, const ucontext_t& machine);

/// The exit code of a process whose filter says that the exception is handled.
inline constexpr int kExitAfterFilter = 1;

}  // namespace qel::layer
