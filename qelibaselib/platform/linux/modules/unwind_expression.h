/// @file
/// The expressions of unwind tables: a stack machine that computes an address from registers and memory.
#pragma once
#include "qelibaselib/platform/linux/modules/unwind_entry.h"
#include "qelibaselib/platform/linux/modules/unwind_registers.h"

namespace qel::layer {

/// Computes the expression in `range`, with `first` on the stack when it is not null. False when it is not understood,
/// reads what is not there, uses a register that is not known or does not end.
bool ComputeExpression(const WalkMemory& memory, const UnwindRegisters& registers, const ProgramRange& range,
                       const uint32_t* first, uint32_t& result);

}  // namespace qel::layer
