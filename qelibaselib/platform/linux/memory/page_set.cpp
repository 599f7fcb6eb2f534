#include "qelibaselib/platform/linux/memory/page_set.h"

#include <algorithm>

namespace qel::layer {

PageSet::Ranges::const_iterator PageSet::Holding(uint64_t address) const {
  auto next = ranges_.upper_bound(address);
  if (next == ranges_.begin()) return ranges_.end();
  --next;
  return address < next->second ? next : ranges_.end();
}

void PageSet::Add(uintptr_t start, uint64_t end) {
  if (start >= end) return;
  uint64_t first = start;
  auto next = ranges_.lower_bound(start);
  if (next != ranges_.begin() && std::prev(next)->second >= start) {
    --next;
    first = next->first;
  }
  // The range that begins first is made longer where there is one: only a new beginning needs memory.
  const auto target = next != ranges_.end() && next->first == first ? next : ranges_.emplace_hint(next, first, end);
  target->second = std::max(target->second, end);
  for (auto other = std::next(target); other != ranges_.end() && other->first <= target->second;) {
    target->second = std::max(target->second, other->second);
    other = ranges_.erase(other);
  }
}

void PageSet::Remove(uintptr_t start, uint64_t end) {
  if (start >= end) return;
  if (const auto last = Holding(end); last != ranges_.end() && last->first < end)
    ranges_.emplace(end, last->second);  // what goes on behind; done first, for it alone needs memory
  auto next = ranges_.lower_bound(start);
  if (next != ranges_.begin() && std::prev(next)->second > start) std::prev(next)->second = start;
  while (next != ranges_.end() && next->first < end) next = ranges_.erase(next);
}

bool PageSet::Contains(uintptr_t start, uint64_t end) const {
  const auto range = Holding(start);
  return range != ranges_.end() && end <= range->second;
}

bool PageSet::Touches(uintptr_t start, uint64_t end) const {
  const auto next = ranges_.lower_bound(start);
  return (next != ranges_.end() && next->first < end) || Holding(start) != ranges_.end();
}

PageSet PageSet::Within(uintptr_t start, uint64_t end) const {
  PageSet part;
  for (uint64_t at = start; at < end;) {
    const auto address = static_cast<uintptr_t>(at);
    const uint64_t change = ChangeAfter(address, end);
    if (Holding(at) != ranges_.end()) part.Add(address, change);
    at = change;
  }
  return part;
}

uint64_t PageSet::ChangeAfter(uintptr_t address, uint64_t limit) const {
  if (const auto range = Holding(address); range != ranges_.end()) return std::min(range->second, limit);
  const auto next = ranges_.upper_bound(address);
  return next == ranges_.end() ? limit : std::min(next->first, limit);
}

}  // namespace qel::layer
