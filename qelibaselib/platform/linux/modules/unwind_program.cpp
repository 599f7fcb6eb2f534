#include "qelibaselib/platform/linux/modules/unwind_program.h"

#include "qelibaselib/platform/linux/modules/table_cursor.h"

namespace qel::layer {
namespace {

constexpr int kMostSteps = 50'000;
constexpr int kMostRemembered = 8;

// Three instructions hold a small operand in their low six bits.
constexpr uint8_t kShortMask = 0xC0;
constexpr uint8_t kShortOperand = 0x3F;

enum Instruction : uint8_t {
  kNothing = 0x00,
  kSetPlace = 0x01,
  kAdvanceByte = 0x02,
  kAdvanceHalf = 0x03,
  kAdvanceWord = 0x04,
  kSaved = 0x05,
  kAsAtStart = 0x06,
  kLost = 0x07,
  kUnchanged = 0x08,
  kInRegister = 0x09,
  kRemember = 0x0A,
  kBackToRemembered = 0x0B,
  kFrame = 0x0C,
  kFrameRegister = 0x0D,
  kFrameOffset = 0x0E,
  kFrameExpression = 0x0F,
  kSavedAtPlace = 0x10,
  kSavedSigned = 0x11,
  kFrameSigned = 0x12,
  kFrameOffsetSigned = 0x13,
  kIsOffset = 0x14,
  kIsOffsetSigned = 0x15,
  kIsComputed = 0x16,
  kArgumentBytes = 0x2E,  // of outgoing arguments: means nothing here
  kSavedAbove = 0x2F,
  kShortAdvance = 0x40,
  kShortSaved = 0x80,
  kShortAsAtStart = 0xC0,
};

class UnwindProgram {
 public:
  UnwindProgram(const UnwindEntry& entry, uint32_t address, UnwindRow& row)
      : entry_(entry), address_(address), place_(entry.codeStart), row_(row) {}

  /// Ends at the end of the range or in front of what holds for later instructions only.
  bool Run(const WalkMemory& memory, const ProgramRange& range) {
    TableCursor cursor(memory, range.begin, range.end);
    while (!cursor.IsAtEnd() && !isBeyond_) {
      if (++steps_ > kMostSteps) return false;
      Execute(cursor);
    }
    return cursor.IsSound();
  }
  void KeepStart() { start_ = row_; }

 private:
  void Execute(TableCursor& cursor) {
    const uint8_t code = cursor.TakeByte();
    const uint8_t operand = code & kShortOperand;
    switch (code & kShortMask) {
      case kShortAdvance:
        return Advance(operand);
      case kShortSaved:
        return SetRule(operand, RegisterRuleKind::kSavedAt, ScaledUnsigned(cursor));
      case kShortAsAtStart:
        return Restore(operand);
      default:
        if (!ExecutePlace(cursor, code) && !ExecuteFrame(cursor, code) && !ExecuteRule(cursor, code)) cursor.Spoil();
    }
  }

  bool ExecutePlace(TableCursor& cursor, uint8_t code) {
    switch (code) {
      case kNothing:
        return true;
      case kSetPlace:
        return SetPlace(cursor.TakePointer(entry_.pointerEncoding)), true;
      case kAdvanceByte:
        return Advance(cursor.TakeByte()), true;
      case kAdvanceHalf:
        return Advance(cursor.TakeHalf()), true;
      case kAdvanceWord:
        return Advance(cursor.TakeWord()), true;
      case kArgumentBytes:
        return cursor.TakeUnsigned(), true;
      case kRemember:
        return Remember();
      case kBackToRemembered:
        return GoBack();
      default:
        return false;
    }
  }

  bool ExecuteFrame(TableCursor& cursor, uint8_t code) {
    switch (code) {
      case kFrame:
        row_.frameColumn = cursor.TakeUnsigned();
        return SetFrameOffset(cursor.TakeUnsigned());
      case kFrameSigned:
        row_.frameColumn = cursor.TakeUnsigned();
        return SetFrameOffset(ScaledSigned(cursor));
      case kFrameRegister:
        row_.frameColumn = cursor.TakeUnsigned();
        return SetFrameOffset(row_.frameOffset);
      case kFrameOffset:
        return SetFrameOffset(cursor.TakeUnsigned());
      case kFrameOffsetSigned:
        return SetFrameOffset(ScaledSigned(cursor));
      case kFrameExpression:
        row_.frameExpression = TakeExpression(cursor);
        return true;
      default:
        return false;
    }
  }

  bool ExecuteRule(TableCursor& cursor, uint8_t code) {
    if (code < kSaved || code > kSavedAbove) return false;
    const uint32_t column = cursor.TakeUnsigned();
    switch (code) {
      case kSaved:
        return SetRule(column, RegisterRuleKind::kSavedAt, ScaledUnsigned(cursor)), true;
      case kSavedSigned:
        return SetRule(column, RegisterRuleKind::kSavedAt, ScaledSigned(cursor)), true;
      case kSavedAbove:
        return SetRule(column, RegisterRuleKind::kSavedAt, 0 - ScaledUnsigned(cursor)), true;
      case kIsOffset:
        return SetRule(column, RegisterRuleKind::kIsOffset, ScaledUnsigned(cursor)), true;
      case kIsOffsetSigned:
        return SetRule(column, RegisterRuleKind::kIsOffset, ScaledSigned(cursor)), true;
      case kInRegister:
        return SetRule(column, RegisterRuleKind::kInRegister, cursor.TakeUnsigned()), true;
      case kAsAtStart:
        return Restore(column), true;
      case kLost:
        return SetRule(column, RegisterRuleKind::kLost), true;
      case kUnchanged:
        return SetRule(column, RegisterRuleKind::kUnchanged), true;
      case kSavedAtPlace:
        return SetRule(column, RegisterRuleKind::kSavedAtPlace, 0, TakeExpression(cursor)), true;
      case kIsComputed:
        return SetRule(column, RegisterRuleKind::kIsComputed, 0, TakeExpression(cursor)), true;
      default:
        return false;
    }
  }

  void Advance(uint32_t steps) { SetPlace(place_ + steps * entry_.codeFactor); }
  void SetPlace(uint32_t place) {
    place_ = place;
    isBeyond_ = place > address_;
  }

  // Registers that hold no addresses are numbered too, and are left out.
  void SetRule(uint32_t column, RegisterRuleKind kind, uint32_t offset = 0, ProgramRange expression = {}) {
    if (column < kUnwindColumns) row_.rules[column] = {kind, offset, expression};
  }
  void Restore(uint32_t column) {
    if (column < kUnwindColumns) row_.rules[column] = start_.rules[column];
  }
  bool SetFrameOffset(uint32_t offset) {
    row_.frameOffset = offset;
    row_.frameExpression = {};
    return true;
  }
  bool Remember() {
    if (rememberedCount_ == kMostRemembered) return false;
    remembered_[rememberedCount_++] = row_;
    return true;
  }
  bool GoBack() {
    if (rememberedCount_ == 0) return false;
    row_ = remembered_[--rememberedCount_];
    return true;
  }

  uint32_t ScaledUnsigned(TableCursor& cursor) const {
    return cursor.TakeUnsigned() * static_cast<uint32_t>(entry_.dataFactor);
  }
  uint32_t ScaledSigned(TableCursor& cursor) const {
    return static_cast<uint32_t>(cursor.TakeSigned()) * static_cast<uint32_t>(entry_.dataFactor);
  }
  static ProgramRange TakeExpression(TableCursor& cursor) {
    const uint32_t bytes = cursor.TakeUnsigned();
    const uint32_t begin = cursor.position();
    cursor.Skip(bytes);
    return cursor.IsSound() ? ProgramRange{begin, begin + bytes} : ProgramRange{};
  }

  const UnwindEntry& entry_;
  const uint32_t address_;
  uint32_t place_;  // the instruction from which on the next changes hold
  bool isBeyond_ = false;
  int steps_ = 0;
  UnwindRow& row_;
  UnwindRow start_{};
  UnwindRow remembered_[kMostRemembered];
  int rememberedCount_ = 0;
};

}  // namespace

bool RunUnwindProgram(const WalkMemory& memory, const UnwindEntry& entry, uint32_t address, UnwindRow& row) {
  row = UnwindRow{};
  UnwindProgram program(entry, address, row);
  if (!program.Run(memory, entry.sharedProgram)) return false;
  program.KeepStart();
  return program.Run(memory, entry.program);
}

}  // namespace qel::layer
