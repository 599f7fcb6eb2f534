#include "qelibaselib/platform/linux/modules/table_cursor.h"

#include <algorithm>

namespace qel::layer {
namespace {

constexpr uint8_t kMoreFollows = 0x80;
constexpr uint8_t kSignOfLast = 0x40;
constexpr int kBitsPerByte = 7;
constexpr int kWordBits = 32;
constexpr int kMostBytes = 10;  // of one number, so that endless ones end

enum Format : uint8_t {
  kAddress = 0x00,
  kUnsigned = 0x01,
  kUnsignedHalf = 0x02,
  kUnsignedWord = 0x03,
  kSigned = 0x09,
  kSignedHalf = 0x0A,
  kSignedWord = 0x0B,
};

}  // namespace

bool TableCursor::Fill() {
  if (IsAtEnd()) return false;
  const uint32_t wanted = std::min<uint32_t>(end_ - at_, sizeof ahead_);
  aheadStart_ = at_;
  aheadEnd_ = at_ + wanted;
  if (memory_.Read(at_, ahead_, wanted)) return true;
  aheadEnd_ = at_ + 1;  // the rest may lie on a page that is not there
  return memory_.Read(at_, ahead_, 1);
}

uint8_t TableCursor::TakeByte() {
  const bool isAhead = at_ >= aheadStart_ && at_ < aheadEnd_;
  if (spoilt_ || (!isAhead && !Fill())) {
    spoilt_ = true;
    aheadStart_ = aheadEnd_ = 0;
    return 0;
  }
  return ahead_[at_++ - aheadStart_];
}

uint32_t TableCursor::TakeHalf() {
  const uint32_t low = TakeByte();
  return low | uint32_t{TakeByte()} << 8;
}

uint32_t TableCursor::TakeWord() {
  const uint32_t low = TakeHalf();
  return low | TakeHalf() << 16;
}

uint32_t TableCursor::TakeUnsigned() {
  uint32_t value = 0;
  for (int i = 0; i < kMostBytes; ++i) {
    const uint8_t byte = TakeByte();
    if (i * kBitsPerByte < kWordBits) value |= uint32_t(byte & ~kMoreFollows) << (i * kBitsPerByte);
    if ((byte & kMoreFollows) == 0) return value;
  }
  spoilt_ = true;
  return 0;
}

int32_t TableCursor::TakeSigned() {
  uint32_t value = 0;
  for (int i = 0; i < kMostBytes; ++i) {
    const uint8_t byte = TakeByte();
    const int shift = i * kBitsPerByte;
    if (shift < kWordBits) value |= uint32_t(byte & ~kMoreFollows) << shift;
    if ((byte & kMoreFollows) != 0) continue;
    const int width = shift + kBitsPerByte;
    if ((byte & kSignOfLast) != 0 && width < kWordBits) value |= ~uint32_t{0} << width;
    return static_cast<int32_t>(value);
  }
  spoilt_ = true;
  return 0;
}

uint32_t TableCursor::TakeNumber(uint8_t format) {
  switch (format) {
    case kAddress:
    case kUnsignedWord:
    case kSignedWord:
      return TakeWord();
    case kUnsigned:
      return TakeUnsigned();
    case kSigned:
      return static_cast<uint32_t>(TakeSigned());
    case kUnsignedHalf:
      return TakeHalf();
    case kSignedHalf:
      return static_cast<uint32_t>(static_cast<int16_t>(TakeHalf()));
    default:
      spoilt_ = true;
      return 0;
  }
}

uint32_t TableCursor::TakePointer(uint8_t encoding, uint32_t header) {
  const uint32_t field = at_;
  const uint32_t number = TakeNumber(encoding & kFormatMask);
  switch (encoding & (kBaseMask | kIndirect)) {
    case 0:
      return number;
    case kFromField:
      return number + field;
    case kFromHeader:
      return number + header;
    default:
      spoilt_ = true;
      return 0;
  }
}

void TableCursor::GoTo(uint32_t target) {
  if (target < begin_ || target > end_) {
    spoilt_ = true;
  } else {
    at_ = target;
  }
}

}  // namespace qel::layer
