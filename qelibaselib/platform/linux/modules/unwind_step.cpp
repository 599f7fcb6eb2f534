#include "qelibaselib/platform/linux/modules/unwind_step.h"

#include "qelibaselib/platform/linux/modules/unwind_expression.h"
#include "qelibaselib/platform/linux/modules/unwind_program.h"

namespace qel::layer {
namespace {

bool ComputeFrameAddress(const WalkMemory& memory, const UnwindRegisters& registers, const UnwindRow& row,
                         uint32_t& address) {
  if (row.frameExpression.begin != row.frameExpression.end)
    return ComputeExpression(memory, registers, row.frameExpression, nullptr, address);
  address = registers.Get(row.frameColumn) + row.frameOffset;
  return registers.IsKnown(row.frameColumn);
}

/// A register that a function need not keep is taken for known only when the tables say where it is.
bool IsKept(uint32_t column) { return column == kEbx || column == kEbp || column == kEsi || column == kEdi; }

/// The caller's value of a register; false when it is not known.
bool FindValue(const WalkMemory& memory, const UnwindRegisters& registers, uint32_t column, const RegisterRule& rule,
               uint32_t frameAddress, uint32_t& value) {
  uint32_t place;
  switch (rule.kind) {
    case RegisterRuleKind::kUnchanged:
      value = column == kEsp ? frameAddress : registers.Get(column);
      return column == kEsp || (IsKept(column) && registers.IsKnown(column));
    case RegisterRuleKind::kSavedAt:
      return memory.ReadWord(frameAddress + rule.offset, value);
    case RegisterRuleKind::kIsOffset:
      value = frameAddress + rule.offset;
      return true;
    case RegisterRuleKind::kInRegister:
      value = registers.Get(rule.offset);
      return registers.IsKnown(rule.offset);
    case RegisterRuleKind::kSavedAtPlace:
      return ComputeExpression(memory, registers, rule.expression, &frameAddress, place) &&
             memory.ReadWord(place, value);
    case RegisterRuleKind::kIsComputed:
      return ComputeExpression(memory, registers, rule.expression, &frameAddress, value);
    default:
      return false;
  }
}

bool HasNoCaller(const RegisterRule& returnRule) {
  return returnRule.kind == RegisterRuleKind::kLost || returnRule.kind == RegisterRuleKind::kUnchanged;
}

}  // namespace

StepResult StepByTables(const WalkMemory& memory, const UnwindTables& tables, const UnwindRegisters& registers,
                        bool wasInterrupted, CallerFrame& caller) {
  UnwindEntry entry;
  UnwindRow row;
  const uint32_t address = wasInterrupted ? registers.Get(kEip) : registers.Get(kEip) - 1;
  if (!FindUnwindEntry(memory, tables, address, entry) || entry.returnColumn >= kUnwindColumns ||
      !RunUnwindProgram(memory, entry, address, row)) {
    return StepResult::kNoTable;
  }
  caller = {};
  if (!ComputeFrameAddress(memory, registers, row, caller.frameAddress)) return StepResult::kLost;
  caller.isFrameAddressKnown = true;
  caller.wasInterrupted = entry.isSignalFrame;
  const RegisterRule returnRule = row.rules[entry.returnColumn];
  if (HasNoCaller(returnRule)) return StepResult::kOutermost;
  for (uint32_t column = 0; column < kUnwindColumns; ++column) {
    const RegisterRule& rule = column == kEip ? returnRule : row.rules[column];
    uint32_t value;
    if (FindValue(memory, registers, column, rule, caller.frameAddress, value))
      caller.registers.Set(static_cast<UnwindColumn>(column), value);
  }
  return caller.registers.IsKnown(kEip) ? StepResult::kCaller : StepResult::kLost;
}

}  // namespace qel::layer
