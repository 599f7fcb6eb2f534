/// @file
/// Memory for objects that must be had even when the heap is used up.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace qel::layer {

/// How many mutexes can be there when the heap is used up. The library holds two for each thread at most: a report's
/// and a channel's.
inline constexpr size_t kReservedMutexes = 64;

/// Blocks of the heap and, when that has none left, of a few places of its own. Constant-initialised.
template <size_t kBytes, size_t kPlaces>
class BlockReserve {
 public:
  /// Null when the places are used up as well.
  void* Allocate() {
    if (void* block = std::malloc(kBytes)) return block;
    for (ReservedBlock& reserved : reserved_)
      if (!reserved.used.exchange(true, std::memory_order_acquire)) return reserved.bytes;
    return nullptr;
  }
  void Free(void* block) {
    for (ReservedBlock& reserved : reserved_) {
      if (reserved.bytes != block) continue;
      reserved.used.store(false, std::memory_order_release);
      return;
    }
    std::free(block);
  }

 private:
  struct ReservedBlock {
    std::atomic<bool> used{false};
    alignas(std::max_align_t) std::byte bytes[kBytes]{};
  };
  ReservedBlock reserved_[kPlaces];
};

}  // namespace qel::layer
