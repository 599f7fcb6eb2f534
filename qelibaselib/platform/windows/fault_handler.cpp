// Faults on Windows. Each guard is a frame on the thread's chain of exception handlers, so the system asks the
// innermost one first. Its handler throws nothing: it notes the fault in the guard's frame and has the thread go on in
// fault_thunk (frame.S). What no guard takes goes to the frames further out and the filter, as if this were not here. A
// vectored handler would be asked before the frames of the system's own DLLs and take the faults that these expect.
#include <malloc.h>

#include "qelibaselib/platform/fault/guard_frame.h"

using fault::GuardFrame;
using fault::GuardState;

extern "C" EXCEPTION_DISPOSITION __cdecl fault_seh_handler(EXCEPTION_RECORD* record, void* frame, CONTEXT* context,
                                                           void* dispatcher);

namespace fault {
namespace {

constexpr DWORD kSpareStackBytes = 64 * 1024;
constexpr DWORD kX87Pending = 0xB8FF;  // exception flags, summary, stack top, busy
constexpr DWORD kX87AllEmpty = 0xFFFFFFFF;
constexpr DWORD kTrapFlag = 0x100, kDirectionFlag = 0x400, kAlignmentFlag = 0x40000;
constexpr DWORD kMxcsrFlags = 0x3F;
constexpr size_t kFxStatus = 2, kFxTag = 4, kFxMxcsr = 24;

DWORD ChainHead() { return __readfsdword(0); }
void SetChainHead(const void* frame) { __writefsdword(0, reinterpret_cast<DWORD>(frame)); }

// The translator itself is the slot's value: nothing to allocate, nothing to free. (A thread_local object is a call
// into the runtime and an allocation here.)
class TranslatorSlot {
 public:
  TranslatorSlot() : slot_(TlsAlloc()) {}
  TranslatorSlot(const TranslatorSlot&) = delete;
  TranslatorSlot& operator=(const TranslatorSlot&) = delete;
  ~TranslatorSlot() { TlsFree(slot_); }
  Translator Get() const {
    const DWORD error = GetLastError();  // a successful read clears it
    void* value = TlsGetValue(slot_);
    SetLastError(error);
    return reinterpret_cast<Translator>(value);
  }
  void Set(Translator translator) const { TlsSetValue(slot_, reinterpret_cast<void*>(translator)); }

 private:
  const DWORD slot_;
};
TranslatorSlot& Slot() {
  static TranslatorSlot slot;
  return slot;
}

// The thread goes on with an empty x87 stack, no pending floating-point exception and a clear direction flag. The
// control words stay.
void ClearPendingState(CONTEXT& context) {
  context.EFlags &= ~(kTrapFlag | kDirectionFlag | kAlignmentFlag);
  context.FloatSave.StatusWord &= ~kX87Pending;
  context.FloatSave.TagWord = kX87AllEmpty;
  if ((context.ContextFlags & CONTEXT_EXTENDED_REGISTERS) != CONTEXT_EXTENDED_REGISTERS) return;
  BYTE* image = context.ExtendedRegisters;
  *reinterpret_cast<WORD*>(image + kFxStatus) &= static_cast<WORD>(~kX87Pending);
  image[kFxTag] = 0;
  *reinterpret_cast<DWORD*>(image + kFxMxcsr) &= ~kMxcsrFlags;
}

// Debug output, thread names, breakpoints and guard pages are somebody else's.
bool IsForUs(const EXCEPTION_RECORD& record) {
  if (record.ExceptionFlags & (EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND | EXCEPTION_STACK_INVALID)) return false;
  const DWORD code = record.ExceptionCode;
  return code >= 0x80000000 && code != EXCEPTION_BREAKPOINT && code != EXCEPTION_SINGLE_STEP &&
         code != EXCEPTION_GUARD_PAGE;
}

// Where the thrower runs. Never at or above the interrupted ESP: the dispatcher's frames, which return through what the
// handler changed, lie there.
DWORD FindThrowerStack(GuardFrame& guard) {
  if (guard.record.ExceptionCode == EXCEPTION_STACK_OVERFLOW) {
    if (!guard.spareStack)
      guard.spareStack = VirtualAlloc(nullptr, kSpareStackBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    if (guard.spareStack) return reinterpret_cast<DWORD>(guard.spareStack) + kSpareStackBytes - 4 * kStackAlignment;
  }
  return StackBelow(guard.esp);
}

DWORD StackBelowGuard(const GuardFrame& guard) { return StackBelow(reinterpret_cast<DWORD>(&guard)); }

// Lets the thread go on in `place` with this EBP.
void GoOn(CONTEXT& context, const char* place, DWORD ebp, DWORD esp) {
  ClearPendingState(context);
  context.Eip = reinterpret_cast<DWORD>(place);
  context.Ebp = ebp;
  context.Esp = esp;
}

void Search(GuardFrame& guard, const EXCEPTION_RECORD& record, CONTEXT& context) {
  guard.BeginSearch();
  guard.record = record;
  guard.context = context;
  guard.StartAt(context);
  if (record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters >= 2 &&
      record.ExceptionInformation[1] == guard.eip && !IsBadReadPtr(reinterpret_cast<void*>(guard.esp), sizeof(DWORD)))
    guard.StartAtCaller();
  const DWORD thrower = FindThrowerStack(guard);
  // The spare stack is freed when the guard is left, so that cannot happen there.
  guard.landing = guard.spareStack ? StackBelowGuard(guard) : thrower;
  GoOn(context, fault_thunk, reinterpret_cast<DWORD>(&guard), thrower);
}

// Returns false for a guard that can throw no more: the exception goes to the next frame of the chain.
bool Redirect(GuardFrame& guard, const EXCEPTION_RECORD& record, CONTEXT& context) {
  switch (guard.state) {
    case GuardState::kRecovering:
    case GuardState::kLost:
      guard.state = GuardState::kLost;
      return false;
    case GuardState::kSearching:
      guard.state = GuardState::kRecovering;
      guard.landing = StackBelowGuard(guard);
      GoOn(context, fault_frame_recover, guard.frame, guard.landing);
      return true;
    case GuardState::kQuiet:
    case GuardState::kThrowing:
    case GuardState::kThrown:
      break;
  }
  Search(guard, record, context);
  return true;
}

}  // namespace

Translator ThreadTranslator() { return Slot().Get(); }
void SetThreadTranslator(Translator translator) { Slot().Set(translator); }

GuardFrame* InnermostGuard() {
  constexpr DWORD kEndOfChain = 0xFFFFFFFF;
  auto* head = reinterpret_cast<GuardFrame*>(ChainHead());
  const bool ours = ChainHead() != kEndOfChain && head->handler == reinterpret_cast<void*>(&fault_seh_handler);
  return ours ? head : nullptr;
}

// Lets the SEH frames of foreign code inside the guard run their termination handlers, and drops them from the chain.
// RtlUnwind keeps no register but ESP.
void PrepareThrow(GuardFrame* guard) {
  if (ChainHead() == reinterpret_cast<DWORD>(guard)) return;
  auto* unwind = &RtlUnwind;
  DWORD eax, ecx, edx;
  __asm__ __volatile__(
      "pushl %%ebx\n\tpushl %%esi\n\tpushl %%edi\n\tpushl %%ebp\n\t"
      "pushl $0\n\tpushl %4\n\tpushl $1f\n\tpushl %3\n\tcall *%%eax\n1:\n\t"
      "popl %%ebp\n\tpopl %%edi\n\tpopl %%esi\n\tpopl %%ebx"
      : "=a"(eax), "=c"(ecx), "=d"(edx)
      : "1"(guard), "2"(&guard->record), "0"(unwind)
      : "memory", "cc");
}

void ClaimHandlers() {}  // nobody can displace a frame of the chain

bool NotePassedFrame(const PassedFrame&) { return false; }

int HoldCancellation() { return 0; }  // threads cannot be cancelled here
void RestoreCancellation(int) {}

void BeginReport() {}  // handles do not run out here
void EndReport() {}

// The system refuses to dispatch an exception whose frames lie outside the thread's own stack.
bool CallOnOwnStack(void (*)(void*), void*) { return false; }

uintptr_t StackLimit() {
  MEMORY_BASIC_INFORMATION stack;
  const bool known = VirtualQuery(__builtin_frame_address(0), &stack, sizeof stack) == sizeof stack;
  return known ? reinterpret_cast<uintptr_t>(stack.AllocationBase) : UINTPTR_MAX;
}

}  // namespace fault

extern "C" __attribute__((used)) void fault_enter(GuardFrame* guard) {
  guard->handler = reinterpret_cast<void*>(&fault_seh_handler);
  guard->state = GuardState::kQuiet;
  guard->spareStack = nullptr;
  guard->outer = reinterpret_cast<GuardFrame*>(fault::ChainHead());
  fault::SetChainHead(guard);
}

extern "C" __attribute__((used)) void fault_leave(GuardFrame* guard) {
  fault::SetChainHead(guard->outer);
  if (!guard->spareStack) return;
  VirtualFree(guard->spareStack, 0, MEM_RELEASE);
  _resetstkoflw();  // the guard page that the overflow used up
}

extern "C" EXCEPTION_DISPOSITION __cdecl fault_seh_handler(EXCEPTION_RECORD* record, void* frame, CONTEXT* context,
                                                           void*) {
  if (!fault::IsForUs(*record) || !fault::Redirect(*static_cast<GuardFrame*>(frame), *record, *context))
    return ExceptionContinueSearch;
  record->ExceptionFlags &= ~static_cast<DWORD>(EXCEPTION_NONCONTINUABLE);  // the dispatcher would not let us continue
  return ExceptionContinueExecution;
}
