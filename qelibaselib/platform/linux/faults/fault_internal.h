/// @file
/// What the files of the fault front end share.
#pragma once
#include <ucontext.h>

#include <csignal>
#include <cstdint>

#include "qelibaselib/platform/fault/guard_frame.h"
#include "qelibaselib/platform/linux/base/forked_part.h"

namespace qel::layer {

/// What a guard needs of its thread. One access with a segment register: the module is there when the process starts.
struct FaultThread {
  fault::GuardFrame* innermost;
  fault::Translator translator;
  bool ready;                               // the rest is known and the alternate signal stack in place
  uintptr_t stackLow, stackHigh, spareTop;  // the thread's stack; where a thrower starts that cannot use it
};
extern thread_local constinit FaultThread t_faultThread __attribute__((visibility("hidden")));

/// First guard or probe of a thread.
void PrepareFaultThread();

/// The handler of all four signals.
void OnFaultSignal(int signal, siginfo_t* info, void* machine);
/// Puts the handler in place where it is not.
void ClaimSignals();
/// A fault whose signal is blocked ends the process, whoever would handle it.
void UnblockSignals();
/// What is not ours: to the host's present handler; to the one that we found at the first time.
void PassToHost(int signal, siginfo_t* info, void* machine);
void PassToOriginal(int signal, siginfo_t* info, void* machine);

extern const ForkedPart kFaultSignalsAtFork;

/// Fills what Windows would deliver for the signal.
void FillFault(EXCEPTION_RECORD& record, CONTEXT& context, int signal, const siginfo_t& info,
               const ucontext_t& machine);
/// Puts the context's general registers into the interrupted thread.
void ApplyContext(ucontext_t& machine, const CONTEXT& context);
/// Lets the thread go on with an empty x87 stack, no pending floating-point exception and a clear direction flag. The
/// control words stay.
void ClearPendingState(ucontext_t& machine);

/// Calls the filter of SetUnhandledExceptionFilter, if there is one; otherwise EXCEPTION_CONTINUE_SEARCH.
LONG CallUnhandledFilter(EXCEPTION_POINTERS* pointers);

/// The exit code of a process whose filter says that the exception is handled.
inline constexpr int kExitAfterFilter = 1;

}  // namespace qel::layer
