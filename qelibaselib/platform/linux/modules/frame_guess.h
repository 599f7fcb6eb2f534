/// @file
/// From a frame to its caller's where no unwind tables tell: by the chain of frame pointers, or by what on the stack
/// looks like a return address.
#pragma once
#include "qelibaselib/platform/linux/modules/unwind_step.h"

namespace qel::layer {

/// A call through a bad pointer leaves the program counter outside any code, and the caller's address on top of the
/// stack.
bool StepFromBadCall(const WalkMemory& memory, const UnwindRegisters& registers, CallerFrame& caller);

/// By EBP, and by the function's first instructions when it may not have made its frame yet. False when that leads to
/// no code.
bool StepByFramePointer(const WalkMemory& memory, const UnwindRegisters& registers, bool wasInterrupted,
                        CallerFrame& caller);

/// By the first word above ESP that points behind a call instruction. Looks at a bounded part of the stack.
bool StepByScan(const WalkMemory& memory, const UnwindRegisters& registers, CallerFrame& caller);

/// Whether the address is that of code: in an executable part of a module, or on a page made executable.
bool IsCode(uint32_t address);

}  // namespace qel::layer
