/// @file
/// A kept descriptor in one word, for threads that share it without a lock.
#pragma once
#include <sys/stat.h>

#include <atomic>
#include <cstdint>

#include "qelibaselib/platform/linux/base/descriptor.h"

namespace qel::layer {

/// The number and a fingerprint of the file that it was kept for: a host may close it and open a file of its own under
/// the same number. Stands in a std::atomic, so that threads never mix two of them.
class MarkedDescriptor {
 public:
  constexpr MarkedDescriptor() = default;
  explicit MarkedDescriptor(int descriptor) : number_(descriptor), fingerprint_(Fingerprint(descriptor)) {}

  bool IsNone() const { return number_ == 0; }
  int number() const { return number_; }
  bool IsOurs() const { return !IsNone() && Fingerprint(number_) == fingerprint_; }
  /// Closes what is ours.
  void Close() const {
    if (IsOurs()) CloseDescriptor(number_);
  }

 private:
  static uint32_t Fingerprint(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) return 0;
    const uint64_t node = status.st_ino * 0x9E3779B97F4A7C15 ^ status.st_dev;
    return static_cast<uint32_t>(node ^ node >> 32);
  }
  int number_ = 0;  // never one of ours: that is standard input
  uint32_t fingerprint_ = 0;
};
static_assert(std::atomic<MarkedDescriptor>::is_always_lock_free);

}  // namespace qel::layer
