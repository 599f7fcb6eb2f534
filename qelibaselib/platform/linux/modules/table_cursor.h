/// @file
/// Reads the numbers of an unwind table one after the other.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/modules/walk_memory.h"

namespace qel::layer {

/// How a pointer stands in a table: the low four bits are its format, the next three what it counts from.
enum PointerEncoding : uint8_t {
  kFormatMask = 0x0F,
  kBaseMask = 0x70,
  kFromField = 0x10,
  kFromHeader = 0x30,
  kIndirect = 0x80,
  kOmitted = 0xFF,
  kSearchTable = 0x3B,  // signed words that count from the header of the table
};

/// Reads from `begin` up to `end`. The first byte that lies behind the end or cannot be read spoils the cursor: it then
/// gives zeros, and its user asks once, at the end of a record, whether all of it was there.
class TableCursor {
 public:
  TableCursor(const WalkMemory& memory, uint32_t begin, uint32_t end)
      : memory_(memory), begin_(begin), at_(begin), end_(end) {}

  bool IsSound() const { return !spoilt_; }
  bool IsAtEnd() const { return spoilt_ || at_ >= end_; }
  uint32_t position() const { return at_; }
  uint32_t end() const { return end_; }
  void Spoil() { spoilt_ = true; }

  uint8_t TakeByte();
  uint32_t TakeHalf();
  uint32_t TakeWord();
  /// Numbers of seven bits a byte, cut to 32 bits.
  uint32_t TakeUnsigned();
  int32_t TakeSigned();
  /// A pointer in the given encoding. One that is indirect or counts from anything else spoils the cursor.
  uint32_t TakePointer(uint8_t encoding, uint32_t header = 0);
  /// Moves to `target`, which must lie between the beginning and the end.
  void GoTo(uint32_t target);
  void Skip(uint32_t bytes) { bytes > end_ - at_ ? Spoil() : GoTo(at_ + bytes); }

 private:
  uint32_t TakeNumber(uint8_t format);
  bool Fill();

  const WalkMemory& memory_;
  const uint32_t begin_;
  uint32_t at_;
  const uint32_t end_;
  bool spoilt_ = false;
  // Bytes that were read ahead, the next one first.
  uint8_t ahead_[32];
  uint32_t aheadStart_ = 0;
  uint32_t aheadEnd_ = 0;
};

}  // namespace qel::layer
