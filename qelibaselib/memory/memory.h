/// @file
/// Memory: allocation that retries, checked copy, compare and fill, the question for a shortage of physical memory.
#pragma once
#include "qelibaselib/memory/checked_memory.h"
#include "qelibaselib/memory/guarded_allocation.h"
#include "qelibaselib/memory/physical_memory.h"

#ifdef __cplusplus
#include <new>

/// Owns a block of _MemAlloc for its scope.
template <class T>
class auto_MemAlloc {
 public:
  /// Throws std::bad_alloc for a block that cannot be written, null included.
  explicit auto_MemAlloc(T* block) : block_(block), owns_(TRUE) {
    if (IsBadWritePtr(block, 1)) throw std::bad_alloc();
  }
  auto_MemAlloc(const auto_MemAlloc&) = delete;
  auto_MemAlloc& operator=(const auto_MemAlloc&) = delete;
  virtual ~auto_MemAlloc() {
    if (!block_ || !owns_) return;
    _MemFree(__FILE__, __LINE__, block_);
    owns_ = FALSE;
    block_ = nullptr;
  }
  T* get() const { return block_; }

 private:
  T* block_;
  BOOL owns_;
};
#endif
