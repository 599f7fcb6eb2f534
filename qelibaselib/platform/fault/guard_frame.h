/// @file
/// What the assembler part, the thrower and the two front ends share. Nobody else includes this.
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

enum GuardState : uint32_t {
  kQuiet = 0,
  kSearching = 1,      // the way from the fault to the guard is being examined; a fault now means that there is none
  kThrown = 2,         // a fault was thrown from inside this guard
  kStackOverflow = 4,  // the fault was one
  kStackKept = 8,      // the stack from the place of the fault up to the guard is as the fault left it
};

// One for each Run, on its stack. What the assembler part uses has fixed places; nothing is cleared at entry.
struct GuardFrame {
  GuardFrame* outer;                      // Windows: the next registration on the thread's SEH chain
  void* handler;                          // Windows: the SEH handler
  uint32_t frame;                         // EBP of fault_run, stored by it
  uint32_t state;                         // of GuardState
  uint32_t eip, esp, ebp, ebx, esi, edi;  // where the thread was interrupted: what the unwinder goes on from
  uint32_t uncaughtBefore;                // exceptions in flight when the first fault was thrown; with kThrown
  uint32_t replaced;                      // faults that cut the unwinding of an earlier one short; with kThrown
  void* spareStack;                       // Windows: what the thrower runs on after a stack overflow
  EXCEPTION_RECORD record;
  CONTEXT context;

  // The unwinder starts at the registers of `from`.
  void StartAt(const CONTEXT& from) {
    eip = from.Eip;
    esp = from.Esp;
    ebp = from.Ebp;
    ebx = from.Ebx;
    esi = from.Esi;
    edi = from.Edi;
  }
};
constexpr uint32_t kRedZoneBytes = 128;  // left free below an interrupted ESP
constexpr uint32_t kStackAlignment = 16;
constexpr size_t kGuardBytes = 864;  // what frame.S keeps free for one
static_assert(offsetof(GuardFrame, frame) == 8 && offsetof(GuardFrame, state) == 12 &&
              offsetof(GuardFrame, eip) == 16 && offsetof(GuardFrame, esp) == 20 && offsetof(GuardFrame, edi) == 36 &&
              offsetof(GuardFrame, spareStack) == 48 && sizeof(GuardFrame) <= kGuardBytes);
static_assert(kStackKept == 8 && kRedZoneBytes == 128);

// Given by the front end.
Translator ThreadTranslator();
void SetThreadTranslator(Translator translator);
GuardFrame* InnermostGuard();          // of the thread; null when there is none, or foreign frames are further in
uintptr_t StackLimit();                // how far down the present stack may grow; 0xFFFFFFFF where that is not known
void PrepareThrow(GuardFrame* guard);  // whatever the system needs before frames are skipped

// Goes on as after a fault of the calling function, with this record and context.
[[noreturn]] void ThrowInGuard(GuardFrame& guard, const EXCEPTION_RECORD& record, const CONTEXT& context);

// Throws for `pointers` if a handler up the stack takes the exception; otherwise returns and has changed nothing.
void ThrowIfCaught(EXCEPTION_POINTERS* pointers);

// Another compiler's C++ exception: no translator sees it, only `catch (...)`.
inline constexpr DWORD kForeignCppException = 0xE06D7363;

}  // namespace fault

extern "C" {
// Given by the front end to fault_run: makes the guard the thread's innermost; returns where that is noted.
QEL_FAULT_HIDDEN fault::GuardFrame** fault_enter(fault::GuardFrame* guard);
// The same: makes the next further out the innermost.
QEL_FAULT_HIDDEN void fault_leave(fault::GuardFrame* guard);
// Labels of frame.S, see there.
extern char fault_frame_begin[] QEL_FAULT_HIDDEN;
extern char fault_frame_recover[] QEL_FAULT_HIDDEN;
extern char fault_frame_end[] QEL_FAULT_HIDDEN;
extern char fault_thunk[] QEL_FAULT_HIDDEN;
extern char fault_thunk_end[] QEL_FAULT_HIDDEN;
}
