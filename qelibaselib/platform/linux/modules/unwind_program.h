/// @file
/// The small programs of unwind tables: how a function's caller is found at each of its instructions.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/modules/unwind_entry.h"
#include "qelibaselib/platform/linux/modules/unwind_registers.h"

namespace qel::layer {

enum class RegisterRuleKind : uint8_t {
  kUnchanged,     ///< the function has not touched it
  kLost,          ///< the caller's value is nowhere
  kSavedAt,       ///< in the word at `offset` from the frame's address
  kIsOffset,      ///< is the frame's address plus `offset`
  kInRegister,    ///< in another register, whose number is `offset`
  kSavedAtPlace,  ///< in the word whose address `expression` computes
  kIsComputed,    ///< `expression` computes it
};

struct RegisterRule {
  RegisterRuleKind kind = RegisterRuleKind::kUnchanged;
  uint32_t offset = 0;
  ProgramRange expression{};
};

/// How the frame's address (what the stack pointer will be in the caller, behind the return address) and the caller's
/// registers are computed at one instruction.
struct UnwindRow {
  uint32_t frameColumn = kUnwindColumns;  ///< the frame's address is this register plus `frameOffset`,
  uint32_t frameOffset = 0;
  ProgramRange frameExpression{};  ///< or, when this is not empty, what it computes
  RegisterRule rules[kUnwindColumns]{};
};

/// Runs an entry's programs up to the instruction at `address`. False when they are not understood or take more steps
/// than any compiler writes.
bool RunUnwindProgram(const WalkMemory& memory, const UnwindEntry& entry, uint32_t address, UnwindRow& row);

}  // namespace qel::layer
