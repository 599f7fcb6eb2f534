/// @file
/// The processor's registers as unwind tables number them.
#pragma once
#include <cstdint>

namespace qel::layer {

enum UnwindColumn : uint32_t { kEax, kEcx, kEdx, kEbx, kEsp, kEbp, kEsi, kEdi, kEip, kUnwindColumns };

/// Registers of one frame, as far as they are known.
class UnwindRegisters {
 public:
  bool IsKnown(uint32_t column) const { return column < kUnwindColumns && (known_ & 1u << column) != 0; }
  /// 0 for one that is not known.
  uint32_t Get(uint32_t column) const { return IsKnown(column) ? values_[column] : 0; }
  void Set(UnwindColumn column, uint32_t value) {
    values_[column] = value;
    known_ |= 1u << column;
  }

 private:
  uint32_t values_[kUnwindColumns] = {};
  uint32_t known_ = 0;
};

}  // namespace qel::layer
