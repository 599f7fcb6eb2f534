/// @file
/// A set of pages, kept as ranges.
#pragma once
#include <cstdint>
#include <map>

namespace qel::layer {

/// Not safe for several threads at once. Without memory, Add and Remove throw std::bad_alloc and change nothing.
class PageSet {
 public:
  void Add(uintptr_t start, uint64_t end);
  void Remove(uintptr_t start, uint64_t end);
  /// Whether all of the range is in the set.
  bool Contains(uintptr_t start, uint64_t end) const;
  /// Whether any of the range is in the set.
  bool Touches(uintptr_t start, uint64_t end) const;
  bool empty() const { return ranges_.empty(); }
  /// Where the answer for this address changes, at most `limit`.
  uint64_t ChangeAfter(uintptr_t address, uint64_t limit) const;
  /// What of the range is in the set.
  PageSet Within(uintptr_t start, uint64_t end) const;
  /// Calls `take(start, end)` for each range, in rising order.
  template <class Take>
  void ForEach(Take&& take) const {
    for (const auto& [start, end] : ranges_) take(static_cast<uintptr_t>(start), end);
  }

 private:
  using Ranges = std::map<uint64_t, uint64_t>;  // start to end; they neither overlap nor touch
  Ranges::const_iterator Holding(uint64_t address) const;
  Ranges ranges_;
};

}  // namespace qel::layer
