/// @file
/// From a frame to its caller's by the unwind tables.
#pragma once
#include "qelibaselib/platform/linux/modules/unwind_entry.h"
#include "qelibaselib/platform/linux/modules/unwind_registers.h"

namespace qel::layer {

enum class StepResult {
  kCaller,     ///< the caller was found
  kOutermost,  ///< the function says that it has none
  kNoTable,    ///< nothing is known about the function: its tables are missing, cut or not understood
  kLost,       ///< the stack is not what the tables say: it cannot be read there, or a register is not known
};

struct CallerFrame {
  uint32_t frameAddress = 0;  ///< of the frame that was left: its return address lies right below
  bool isFrameAddressKnown = false;
  bool wasInterrupted = false;  ///< the caller stands at an instruction that it has not executed yet
  UnwindRegisters registers;    ///< the caller's
};

/// `wasInterrupted`: the frame stands at an instruction that it has not executed yet; otherwise behind a call, which
/// may be the last of its function.
StepResult StepByTables(const WalkMemory& memory, const UnwindTables& tables, const UnwindRegisters& registers,
                        bool wasInterrupted, CallerFrame& caller);

}  // namespace qel::layer
