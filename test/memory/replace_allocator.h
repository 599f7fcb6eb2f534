// Stands in for the array operators that the library allocates with.
#pragma once
#include <new>

#include "test/support/library.h"

namespace qel::test {

class ReplaceAllocator {
 public:
  // Asked before every allocation whether it fails; `nth` counts from 1.
  explicit ReplaceAllocator(std::function<bool(int nth)> fails = [](int) { return false; }) : fails_(std::move(fails)) {
    active_ = this;
  }
  ReplaceAllocator(const ReplaceAllocator&) = delete;
  ReplaceAllocator& operator=(const ReplaceAllocator&) = delete;
  ~ReplaceAllocator() { active_ = nullptr; }

  std::vector<std::size_t> sizes;
  int freed = 0;

 private:
  static void* Allocate(std::size_t size) {
    active_->sizes.push_back(size);
    if (active_->fails_(static_cast<int>(active_->sizes.size()))) throw std::bad_alloc();
    return operator new[](size);
  }
  static void Free(void* block) {
    ++active_->freed;
    operator delete[](block);
  }
  static inline ReplaceAllocator* active_ = nullptr;
  std::function<bool(int)> fails_;
  // operator new[](size_t) and operator delete[](void*)
  ReplaceCall allocate_{"_Znaj", &Allocate};
  ReplaceCall free_{"_ZdaPv", &Free};
};

}  // namespace qel::test
