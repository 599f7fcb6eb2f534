#include "qelibaselib/platform/linux/modules/unwind_expression.h"

#include "qelibaselib/platform/linux/modules/table_cursor.h"

namespace qel::layer {
namespace {

constexpr int kMostSteps = 1000;
constexpr uint32_t kMostValues = 32;
constexpr uint32_t kSignBit = 0x80000000;
constexpr uint32_t kShiftLimit = 32;

enum Operation : uint8_t {
  kAddress = 0x03,
  kReadWord = 0x06,
  kByte = 0x08,
  kSignedByte = 0x09,
  kHalf = 0x0A,
  kSignedHalf = 0x0B,
  kWord = 0x0C,
  kSignedWord = 0x0D,
  kUnsignedNumber = 0x10,
  kSignedNumber = 0x11,
  kDuplicate = 0x12,
  kDrop = 0x13,
  kOver = 0x14,
  kPick = 0x15,
  kSwap = 0x16,
  kRotate = 0x17,
  kAbsolute = 0x19,
  kAnd = 0x1A,
  kDivide = 0x1B,
  kSubtract = 0x1C,
  kRemainder = 0x1D,
  kMultiply = 0x1E,
  kNegate = 0x1F,
  kNot = 0x20,
  kOr = 0x21,
  kAdd = 0x22,
  kAddNumber = 0x23,
  kShiftLeft = 0x24,
  kShiftRight = 0x25,
  kShiftSigned = 0x26,
  kExclusiveOr = 0x27,
  kBranch = 0x28,
  kEqual = 0x29,
  kGreaterEqual = 0x2A,
  kGreater = 0x2B,
  kLessEqual = 0x2C,
  kLess = 0x2D,
  kNotEqual = 0x2E,
  kJump = 0x2F,
  kSmallNumber = 0x30,   // 0 to 31
  kRegister = 0x50,      // of 32
  kBaseRegister = 0x70,  // of 32, plus a number
  kAnyBaseRegister = 0x92,
  kReadSized = 0x94,
  kNothing = 0x96,
};
constexpr uint8_t kNumbered = 32;

class Expression {
 public:
  Expression(const WalkMemory& memory, const UnwindRegisters& registers, const ProgramRange& range)
      : memory_(memory), registers_(registers), cursor_(memory, range.begin, range.end) {}

  bool Compute(const uint32_t* first, uint32_t& result) {
    if (first) Push(*first);
    for (int steps = 0; !cursor_.IsAtEnd() && !failed_; ++steps) {
      if (steps == kMostSteps) return false;
      Execute(cursor_.TakeByte());
    }
    result = Pop();
    return cursor_.IsSound() && !failed_;
  }

 private:
  void Push(uint32_t value) {
    if (count_ == kMostValues) {
      failed_ = true;
    } else {
      values_[count_++] = value;
    }
  }
  uint32_t Pop() {
    if (count_ == 0) {
      failed_ = true;
      return 0;
    }
    return values_[--count_];
  }
  /// The value `depth` below the top.
  uint32_t Peek(uint32_t depth) {
    if (depth >= count_) {
      failed_ = true;
      return 0;
    }
    return values_[count_ - 1 - depth];
  }
  uint32_t RegisterValue(uint32_t column) {
    if (!registers_.IsKnown(column)) failed_ = true;
    return registers_.Get(column);
  }

  void Execute(uint8_t code) {
    if (code >= kSmallNumber && code < kSmallNumber + kNumbered) {
      Push(code - kSmallNumber);
    } else if (code >= kRegister && code < kRegister + kNumbered) {
      Push(RegisterValue(code - kRegister));
    } else if (code >= kBaseRegister && code < kBaseRegister + kNumbered) {
      Push(RegisterValue(code - kBaseRegister) + static_cast<uint32_t>(cursor_.TakeSigned()));
    } else if (!ExecuteNumber(code) && !ExecuteOrder(code) && !ExecuteFlow(code) && !ExecuteOnOne(code)) {
      ExecuteOnTwo(code);
    }
  }

  bool ExecuteNumber(uint8_t code) {
    switch (code) {
      case kAddress:
      case kWord:
      case kSignedWord:
        return Push(cursor_.TakeWord()), true;
      case kByte:
        return Push(cursor_.TakeByte()), true;
      case kSignedByte:
        return Push(static_cast<uint32_t>(static_cast<int8_t>(cursor_.TakeByte()))), true;
      case kHalf:
        return Push(cursor_.TakeHalf()), true;
      case kSignedHalf:
        return Push(static_cast<uint32_t>(static_cast<int16_t>(cursor_.TakeHalf()))), true;
      case kUnsignedNumber:
        return Push(cursor_.TakeUnsigned()), true;
      case kSignedNumber:
        return Push(static_cast<uint32_t>(cursor_.TakeSigned())), true;
      case kAnyBaseRegister: {
        const uint32_t base = RegisterValue(cursor_.TakeUnsigned());
        return Push(base + static_cast<uint32_t>(cursor_.TakeSigned())), true;
      }
      default:
        return false;
    }
  }

  bool ExecuteOrder(uint8_t code) {
    switch (code) {
      case kDuplicate:
        return Push(Peek(0)), true;
      case kDrop:
        return Pop(), true;
      case kOver:
        return Push(Peek(1)), true;
      case kPick:
        return Push(Peek(cursor_.TakeByte())), true;
      case kSwap:
        return Rotate(2), true;
      case kRotate:
        return Rotate(3), true;
      default:
        return false;
    }
  }

  /// The top goes below the next `depth - 1`.
  void Rotate(uint32_t depth) {
    const uint32_t top = Peek(0);
    if (depth > count_) failed_ = true;
    if (failed_) return;
    for (uint32_t i = count_ - 1; i > count_ - depth; --i) values_[i] = values_[i - 1];
    values_[count_ - depth] = top;
  }

  bool ExecuteFlow(uint8_t code) {
    if (code == kNothing) return true;
    if (code != kBranch && code != kJump) return false;
    const auto distance = static_cast<int16_t>(cursor_.TakeHalf());
    if (code == kJump || Pop() != 0) cursor_.GoTo(cursor_.position() + static_cast<uint32_t>(int32_t{distance}));
    return true;
  }
  bool ExecuteOnOne(uint8_t code) {
    switch (code) {
      case kReadWord:
        return Push(ReadMemory(sizeof(uint32_t))), true;
      case kReadSized:
        return Push(ReadMemory(cursor_.TakeByte())), true;
      case kAbsolute: {
        const uint32_t value = Pop();
        return Push((value & kSignBit) != 0 ? 0 - value : value), true;
      }
      case kNegate:
        return Push(0 - Pop()), true;
      case kNot:
        return Push(~Pop()), true;
      case kAddNumber:
        return Push(Pop() + cursor_.TakeUnsigned()), true;
      default:
        return false;
    }
  }

  uint32_t ReadMemory(uint32_t bytes) {
    uint32_t value = 0;
    const uint32_t address = Pop();
    if (bytes == 0 || bytes > sizeof value || !memory_.Read(address, &value, bytes)) failed_ = true;
    return value;
  }

  void ExecuteOnTwo(uint8_t code) {
    const uint32_t right = Pop();
    const uint32_t left = Pop();
    uint32_t value = 0;
    if (!CombineBits(code, left, right, value) && !CombineNumbers(code, left, right, value)) failed_ = true;
    Push(value);
  }

  static bool CombineBits(uint8_t code, uint32_t left, uint32_t right, uint32_t& value) {
    const bool isTooFar = right >= kShiftLimit;
    switch (code) {
      case kAnd:
        return value = left & right, true;
      case kOr:
        return value = left | right, true;
      case kExclusiveOr:
        return value = left ^ right, true;
      case kShiftLeft:
        return value = isTooFar ? 0 : left << right, true;
      case kShiftRight:
        return value = isTooFar ? 0 : left >> right, true;
      case kShiftSigned:
        return value = static_cast<uint32_t>(static_cast<int32_t>(left) >> (isTooFar ? kShiftLimit - 1 : right)), true;
      default:
        return false;
    }
  }

  static bool CombineNumbers(uint8_t code, uint32_t left, uint32_t right, uint32_t& value) {
    const auto signedLeft = static_cast<int32_t>(left), signedRight = static_cast<int32_t>(right);
    switch (code) {
      case kAdd:
        return value = left + right, true;
      case kSubtract:
        return value = left - right, true;
      case kMultiply:
        return value = left * right, true;
      case kDivide:
        if (right == 0) return false;
        return value = static_cast<uint32_t>(int64_t{signedLeft} / signedRight), true;
      case kRemainder:
        if (right == 0) return false;
        return value = left % right, true;
      case kEqual:
        return value = left == right, true;
      case kNotEqual:
        return value = left != right, true;
      case kGreaterEqual:
        return value = signedLeft >= signedRight, true;
      case kGreater:
        return value = signedLeft > signedRight, true;
      case kLessEqual:
        return value = signedLeft <= signedRight, true;
      case kLess:
        return value = signedLeft < signedRight, true;
      default:
        return false;
    }
  }

  const WalkMemory& memory_;
  const UnwindRegisters& registers_;
  TableCursor cursor_;
  bool failed_ = false;
  uint32_t count_ = 0;
  uint32_t values_[kMostValues];
};

}  // namespace

bool ComputeExpression(const WalkMemory& memory, const UnwindRegisters& registers, const ProgramRange& range,
                       const uint32_t* first, uint32_t& result) {
  return Expression(memory, registers, range).Compute(first, result);
}

}  // namespace qel::layer
