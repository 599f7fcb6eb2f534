/// @file
/// What the assembler part, the thrower and the two front ends share. Nobody else includes this.
///
/// The states of a guard. A fault always goes to the innermost guard of its thread.
///
/// | state       | what the thread does                          | a fault now                                      |
/// |-------------|-----------------------------------------------|--------------------------------------------------|
/// | kQuiet      | runs the body; no fault since the entry       | kSearching                                       |
/// | kSearching  | examines the frames from the fault to the     | kRecovering: the frames cannot be walked, the    |
/// |             | guard                                         | exception starts at the guard itself             |
/// | kRecovering | is about to throw from the guard's own frame  | kLost                                            |
/// | kThrowing   | makes the exception object                    | kSearching; the throw has failed (see cutShort)  |
/// | kThrown     | unwinds, or goes on after a clause of its own | kSearching                                       |
/// | kLost       | can throw no more                             | belongs to the next guard further out            |
///
/// Every chain of faults ends: in one guard kSearching and kRecovering are passed once for each fault, and the number
/// of throws that do not arrive is counted in `cutShort`, which leads to kRecovering and then to kLost.
#pragma once
#include <cstddef>
#include <cstdint>

#include "qelibaselib/platform/fault/fault.h"

#ifdef _WIN32
#define QEL_FAULT_HIDDEN
#else
#define QEL_FAULT_HIDDEN __attribute__((visibility("hidden")))
#endif

namespace fault {

enum class GuardState : uint32_t { kQuiet, kSearching, kRecovering, kThrowing, kThrown, kLost };

/// A destructor that faults cuts the unwinding of a fault short, and the next one starts in its place. After this many
/// in a row the destructors that are left are given up; after twice as many, the guard.
inline constexpr uint32_t kMostCutShort = 200;

/// One for each Run, on its stack. The assembler part knows the places of what it uses. The entry sets `outer`, `frame`
/// and `state` (and the handler on Windows); the first fault sets the rest.
struct GuardFrame {
  GuardFrame* outer;  ///< Windows: the next registration on the thread's SEH chain
  void* handler;      ///< Windows: the SEH handler
  uint32_t frame;     ///< EBP of fault_run, stored by it
  GuardState state;
  uint32_t eip, esp, ebp, ebx, esi, edi;  ///< where the thread was interrupted: what the unwinder goes on from
  uint32_t landing;                       ///< ESP on which an exception starts at, or leaves, this guard after a fault
  bool thrown;                            ///< a fault was thrown from inside this guard
  bool throwFailed;                       ///< the last throw ended in a fault before the exception was in flight
  uint32_t uncaughtBefore;                ///< exceptions in flight when the first fault was thrown; with `thrown`
  uint32_t cutShort;                      ///< throws in a row that did not arrive
  void* spareStack;                       ///< Windows: what the thrower runs on after a stack overflow
  EXCEPTION_RECORD record;
  CONTEXT context;

  /// A fault has arrived: the way from it to the guard is looked for next.
  void BeginSearch() {
    if (state == GuardState::kQuiet) {
      thrown = false;
      cutShort = 0;
    }
    throwFailed = state == GuardState::kThrowing;
    state = GuardState::kSearching;
  }

  /// Has the unwinder start at the registers of `from`.
  void StartAt(const CONTEXT& from) {
    eip = from.Eip;
    esp = from.Esp;
    ebp = from.Ebp;
    ebx = from.Ebx;
    esi = from.Esi;
    edi = from.Edi;
  }

  /// Has the unwinder start at the caller of a function that was called through a bad pointer: the callee's frame does
  /// not exist. The word at `esp` must be readable. One byte before the return address is inside the call.
  void StartAtCaller() {
    eip = *reinterpret_cast<uint32_t*>(esp) - 1;
    esp += sizeof(uint32_t);
  }
};
constexpr uint32_t kRedZoneBytes = 128;  // left free below an interrupted ESP
constexpr uint32_t kStackAlignment = 16;
constexpr size_t kGuardBytes = 864;  // what frame.S keeps free for one
static_assert(offsetof(GuardFrame, frame) == 8 && offsetof(GuardFrame, state) == 12 &&
              offsetof(GuardFrame, eip) == 16 && offsetof(GuardFrame, esp) == 20 && offsetof(GuardFrame, edi) == 36 &&
              offsetof(GuardFrame, landing) == 40 && sizeof(GuardFrame) <= kGuardBytes);
static_assert(static_cast<uint32_t>(GuardState::kQuiet) == 0);

/// The first usable ESP below an interrupted one.
constexpr uint32_t StackBelow(uint32_t esp) { return (esp - kRedZoneBytes) & ~(kStackAlignment - 1); }

/// A frame on the way from a fault to its guard.
struct PassedFrame {
  uintptr_t instruction;  ///< where the frame will go on
  uintptr_t function;     ///< where its function begins, 0 when that is not known
  uintptr_t stack;        ///< its ESP
};

// Given by the front end.
Translator ThreadTranslator();
void SetThreadTranslator(Translator translator);
/// The thread's innermost guard; null when there is none, or when foreign frames are further in.
GuardFrame* InnermostGuard();
/// How far down the present stack may grow; 0xFFFFFFFF where that is not known.
uintptr_t StackLimit();
/// Called for each frame that a fault passes. Returns whether it is one that the system made for a signal: its caller
/// may stand on another stack.
bool NotePassedFrame(const PassedFrame& frame);
/// Does whatever the system needs before the frames between the fault and the guard are skipped.
void PrepareThrow(GuardFrame* guard);
/// Runs `body` on a stack of its own, large enough for a report. False when there is none; `body` was not called then.
bool CallOnOwnStack(void (*body)(void* argument), void* argument);

/// Makes what is kept for reports available, until as many calls of EndReport have followed.
void BeginReport();
void EndReport();

/// Goes on as after a fault of the calling function, with this record and context.
[[noreturn]] void ThrowInGuard(GuardFrame& guard, const EXCEPTION_RECORD& record, const CONTEXT& context);

/// Throws for `pointers` if a handler up the stack takes the exception; otherwise returns and has changed nothing.
void ThrowIfCaught(EXCEPTION_POINTERS* pointers);

/// Another compiler's C++ exception: no translator sees it, only `catch (...)`.
inline constexpr DWORD kForeignCppException = 0xE06D7363;

}  // namespace fault

extern "C" {
/// Given by the front end to fault_run: makes the guard the thread's innermost.
QEL_FAULT_HIDDEN void fault_enter(fault::GuardFrame* guard);
/// The same: makes the next further out the innermost.
QEL_FAULT_HIDDEN void fault_leave(fault::GuardFrame* guard);
// Labels of frame.S, see there.
extern char fault_frame_begin[] QEL_FAULT_HIDDEN;
extern char fault_frame_recover[] QEL_FAULT_HIDDEN;
extern char fault_frame_end[] QEL_FAULT_HIDDEN;
extern char fault_thunk[] QEL_FAULT_HIDDEN;
extern char fault_thunk_end[] QEL_FAULT_HIDDEN;
}
