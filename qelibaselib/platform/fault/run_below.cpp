// Room for the clause that reports a fault.
//
// Problem: the clause runs in the guard's caller, above the frames of the fault. Whatever it calls overwrites the
// frames that its report is to show; and on a small or used-up stack there is no room for a report at all.
//
// Idea: where the stack goes on far enough below the fault, the stack pointer is moved there first. Everywhere else the
// report runs on a stack of its own.
#include "qelibaselib/platform/fault/guard_frame.h"

namespace fault {
namespace {

class ReportScope {
 public:
  ReportScope() { BeginReport(); }
  ReportScope(const ReportScope&) = delete;
  ReportScope& operator=(const ReportScope&) = delete;
  ~ReportScope() { EndReport(); }
};

struct ReportCall {
  void (*body)(void* argument);
  void* argument;
};

// Only where there is room: the scope needs more than the clause leaves.
__attribute__((noinline)) void RunReport(void* argument) {
  const auto& call = *static_cast<const ReportCall*>(argument);
  const ReportScope scope;
  call.body(call.argument);
}

}  // namespace

// The sanitizer would put its marks for a block of the stack on the frames that are to be read, and it knows one stack
// for each thread.
#ifdef __SANITIZE_ADDRESS__
void CallBelow(const CONTEXT*, void (*body)(void*), void* argument) {
  const CancellationHold hold;
  ReportCall call{body, argument};
  RunReport(&call);
}
#else
namespace {

constexpr uintptr_t kFarthest = 1024 * 1024;  // further above a fault its frames are not kept by a move
constexpr uintptr_t kRoomBytes = 128 * 1024;  // for whatever the report calls

enum class Room { kHere, kBelowFault, kOwnStack };

Room FindRoom(uintptr_t here, uintptr_t fault) {
  const uintptr_t limit = StackLimit();
  if (limit == UINTPTR_MAX) return Room::kOwnStack;
  const bool faultIsBelow = fault > limit && fault < here;
  if (faultIsBelow && here - fault < kFarthest && fault - limit > kRoomBytes) return Room::kBelowFault;
  return faultIsBelow || here - limit < kRoomBytes ? Room::kOwnStack : Room::kHere;
}

}  // namespace

__attribute__((noinline)) void CallBelow(const CONTEXT* context, void (*body)(void*), void* argument) {
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const uintptr_t fault = context ? context->Esp : 0;
  const CancellationHold hold;
  ReportCall call{body, argument};
  const Room room = FindRoom(here, fault);
  if (room == Room::kOwnStack && CallOnOwnStack(&RunReport, &call)) return;
  if (room == Room::kBelowFault) {
    void* skipped = __builtin_alloca(here - fault + kRedZoneBytes);
    __asm__ __volatile__("" : : "r"(skipped) : "memory");
  }
  RunReport(&call);
}
#endif

}  // namespace fault
