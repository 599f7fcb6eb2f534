/// @file
/// What a thread keeps for its faults, and what other rooms need of this one besides the probes.
#pragma once
#include <csignal>
#include <cstdint>
#include <optional>

#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/faults/thread_timer.h"

namespace fault {
struct GuardFrame;
}

namespace qel::layer {

/// Where a stack lies: from its lowest byte to the first one behind it; zeros where that is not known.
struct StackBounds {
  uintptr_t low, high;
  bool Contains(uintptr_t address) const { return address > low && address <= high; }
};

/// What a guard needs of its thread. One access with a segment register: the module is there when the process starts.
struct FaultThread {
  fault::GuardFrame* innermost;
  fault::Translator translator;
  bool ready;              ///< the thread was prepared
  bool faultInAllocator;   ///< the last fault passed a function of the allocator, which may hold its lock
  bool asksFilter;         ///< the filter runs
  bool maskIsKnown;        ///< the last fault passed a handler of the host; `mask` is that of the code it interrupted
  uint32_t wishedMask;     ///< signals of faults that the host believes to have blocked: bits 1 << signal
  uintptr_t handlerFrame;  ///< where on the stack a handler of the host was called; 0 when none runs
  uint32_t handlerMask;    ///< what the host believes to be blocked while that handler runs, besides
  struct LockWatch {
    const fault::GuardFrame* outer;  ///< the innermost guard outside the report
    const uint32_t* awaited;         ///< what the thread slept on at the last look
    std::optional<ThreadTimer> timer;
  } lockWatch;
  sigset_t mask;
  StackBounds stack;  ///< the stack that the thread runs on
  void* stacks;       ///< memory of the signal stack and the spare stack; null when there was none
};
extern thread_local constinit FaultThread t_faultThread __attribute__((visibility("hidden")));

/// First guard or probe of a thread, or its start.
void PrepareFaultThread();

extern const ForkedPart kFaultSignalsAtFork;
extern const ForkedPart kReportDescriptorsAtFork;

}  // namespace qel::layer
