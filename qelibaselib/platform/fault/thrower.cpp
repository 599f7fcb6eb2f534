// The thrower: from the guard of a faulting thread to an exception in flight.
//
// Problem: an exception that the unwinder cannot bring to the guard ends the process: code without unwind tables, a
// noexcept function, a smashed stack may lie between.
//
// Idea: before the throw the thrower walks the frames from the fault to the guard as the unwinder would. If it arrives,
// it throws at the fault, and the destructors on the way run. If it does not, it throws from the guard's own frame: the
// same clauses run, and only those destructors are lost.
//
// Invariant: a fault in here does not come back. The front end finds the guard in a state other than kQuiet or kThrown,
// and guard_frame.h tells for each state what follows; so no chain of faults is endless.
#include <unwind.h>

#include <exception>

#include "qelibaselib/platform/fault/exception_object.h"
#include "qelibaselib/platform/fault/exception_table.h"
#include "qelibaselib/platform/fault/guard_frame.h"

namespace fault {
namespace {

bool IsInside(uintptr_t returnAddress, const void* begin, const void* end) {
  return returnAddress > reinterpret_cast<uintptr_t>(begin) && returnAddress <= reinterpret_cast<uintptr_t>(end);
}

struct Walk {
  const GuardFrame* guard;
  bool pastThunk;  // the frames before the thunk are the thrower's own
  bool reached;
  uintptr_t stack;  // of the last frame, 0 where the next one may stand anywhere
};

bool IsGuardsFrame(_Unwind_Context* context, uintptr_t instruction, const GuardFrame* guard) {
  constexpr int kEbp = 5;
  return IsInside(instruction, fault_frame_begin, fault_frame_end) && _Unwind_GetGR(context, kEbp) == guard->frame;
}

_Unwind_Reason_Code VisitFrame(_Unwind_Context* context, void* argument) {
  Walk& walk = *static_cast<Walk*>(argument);
  const uintptr_t instruction = _Unwind_GetIP(context);
  if (!walk.pastThunk) {
    walk.pastThunk = IsInside(instruction, fault_thunk, fault_thunk_end);
    return _URC_NO_REASON;
  }
  walk.reached = IsGuardsFrame(context, instruction, walk.guard);
  if (walk.reached) return _URC_NORMAL_STOP;
  const uintptr_t stack = _Unwind_GetCFA(context);
  if (stack <= walk.stack) return _URC_NORMAL_STOP;  // the frames of a sound stack rise
  const bool ofSignal = NotePassedFrame({instruction, _Unwind_GetRegionStart(context), stack});
  walk.stack = ofSignal ? 0 : stack;
  return MayPass(context) ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

// Whether an exception thrown at the fault arrives at the guard.
bool CanReachGuard(const GuardFrame* guard) {
  Walk walk{guard, false, false, 0};
  _Unwind_Backtrace(VisitFrame, &walk);
  return walk.reached;
}

[[noreturn]] void GoToGuard(const GuardFrame* guard) {
  __asm__ __volatile__("movl %0, %%ebp\n\tjmp *%1" : : "r"(guard->frame), "r"(fault_frame_recover) : "memory");
  __builtin_unreachable();
}

// The sanitizer has marked the stack of the frames that were left without being unwound. Others stand there now.
#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_unpoison_memory_region(const volatile void* address, size_t bytes);
#define QEL_NOT_SANITIZED __attribute__((no_sanitize_address))
QEL_NOT_SANITIZED void ForgetSkippedFrames(const GuardFrame* guard) {
  constexpr uintptr_t kThrowerBytes = 64 * 1024, kLargestStack = 8 * 1024 * 1024;
  // Either may be on another stack than the guard.
  const uintptr_t places[] = {guard->esp, reinterpret_cast<uintptr_t>(__builtin_frame_address(0))};
  uintptr_t low = guard->frame;
  for (const uintptr_t place : places) {
    const bool isBelow = place < guard->frame && guard->frame - place < kLargestStack;
    if (isBelow && place - kThrowerBytes < low) low = place - kThrowerBytes;
  }
  __asan_unpoison_memory_region(reinterpret_cast<void*>(low), guard->frame - low);
}
#else
#define QEL_NOT_SANITIZED
void ForgetSkippedFrames(const GuardFrame*) {}
#endif

// Whether the throw before this one has not arrived anywhere: the fault came before the object was in flight, or cut
// the unwinding short.
bool HasCutThrowShort(const GuardFrame* guard, const ThreadExceptions* exceptions) {
  return guard->thrown && (guard->throwFailed || exceptions->uncaught > guard->uncaughtBefore);
}

// Counts the fault. An exception whose unwinding it cut short will never be caught: the count of those in flight is put
// right.
void CountFault(GuardFrame* guard) {
  ThreadExceptions* exceptions = CurrentExceptions();
  if (HasCutThrowShort(guard, exceptions)) {
    exceptions->uncaught = guard->uncaughtBefore;
    guard->cutShort += guard->throwFailed ? kMostCutShort : 1;
  } else {
    guard->uncaughtBefore = exceptions->uncaught;
    guard->cutShort = 0;
  }
  guard->thrown = true;
}

// The guard cannot throw. The front end finds its state at the next fault, which is this instruction, and turns to the
// guard further out.
[[noreturn]] void GiveUp(GuardFrame* guard) {
  guard->state = GuardState::kLost;
  __builtin_trap();
}

[[noreturn]] void Throw(GuardFrame* guard) {
  EXCEPTION_POINTERS pointers{&guard->record, &guard->context};
  const DWORD code = guard->record.ExceptionCode;
  const Translator translator = code == kForeignCppException ? nullptr : ThreadTranslator();
  const bool asCse = translator == &ThrowCse;
  guard->state = GuardState::kThrowing;
  PrepareThrow(guard);
  if (translator && !asCse) {
    guard->state = GuardState::kThrown;
    translator(code, &pointers);
  }
  _Unwind_Exception* exception = MakeException(pointers, asCse);
  guard->state = GuardState::kThrown;
  ThrowObject(exception);
  std::terminate();  // there is no clause around this guard
}

}  // namespace

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN void fault_throw(GuardFrame* guard) {
  CountFault(guard);
  if (guard->cutShort > kMostCutShort || !CanReachGuard(guard)) {
    guard->state = GuardState::kRecovering;
    GoToGuard(guard);
  }
  Throw(guard);
}

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN QEL_NOT_SANITIZED void fault_throw_from_guard(
    GuardFrame* guard) {
  if (guard->cutShort > 2 * kMostCutShort) GiveUp(guard);
  ForgetSkippedFrames(guard);
  Throw(guard);
}

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN void fault_leave_by_exception(
    GuardFrame* guard, _Unwind_Exception* exception) {
  fault_leave(guard);
  _Unwind_Resume(exception);
  __builtin_unreachable();
}

Translator SetTranslator(Translator translator) {
  const Translator previous = ThreadTranslator();
  SetThreadTranslator(translator);
  return previous;
}

// The thread is "interrupted" in here, so that the unwinder finds every register of the callers.
__attribute__((noinline)) void ThrowInGuard(GuardFrame& guard, const EXCEPTION_RECORD& record, const CONTEXT& context) {
  guard.BeginSearch();
  guard.record = record;
  guard.context = context;
  __asm__ __volatile__(
      "call 1f\n"
      "1:\tpopl %c[eip](%[guard])\n\t"
      "movl %%esp, %c[esp](%[guard])\n\t"
      "movl %%ebp, %c[ebp](%[guard])\n\t"
      "movl %%ebx, %c[ebx](%[guard])\n\t"
      "movl %%esi, %c[esi](%[guard])\n\t"
      "movl %%edi, %c[edi](%[guard])\n\t"
      "movl %[guard], %%ebp\n\t"
      "subl %[redZone], %%esp\n\t"
      "andl %[alignment], %%esp\n\t"
      "movl %%esp, %c[landing](%%ebp)\n\t"
      "jmp *%[thunk]"
      :
      : [guard] "r"(&guard), [thunk] "r"(fault_thunk), [eip] "i"(offsetof(GuardFrame, eip)),
        [esp] "i"(offsetof(GuardFrame, esp)), [ebp] "i"(offsetof(GuardFrame, ebp)),
        [ebx] "i"(offsetof(GuardFrame, ebx)), [esi] "i"(offsetof(GuardFrame, esi)),
        [edi] "i"(offsetof(GuardFrame, edi)), [landing] "i"(offsetof(GuardFrame, landing)),
        [redZone] "i"(kRedZoneBytes), [alignment] "i"(-static_cast<int>(kStackAlignment))
      : "memory");
  __builtin_unreachable();
}

}  // namespace fault
