/// @file
/// A large range of a file or mapping in chunks, and the view of one chunk.
#pragma once
#include <algorithm>

#include "qelibaselib/base/source_position.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

constexpr DWORD Low(unsigned long long value) { return static_cast<DWORD>(value); }
constexpr DWORD High(unsigned long long value) { return static_cast<DWORD>(value >> 32); }
constexpr unsigned long long Join(DWORD low, DWORD high) { return static_cast<unsigned long long>(high) << 32 | low; }

/// The offset of every view is a multiple of it.
DWORD AllocationGranularity();
/// 16 MiB, rounded up to the granularity: small enough to be found in a 32-bit address space.
DWORD ChunkBytes();

struct Chunk {
  unsigned long long offset;
  DWORD bytes;
};

/// The chunks of `size` bytes from offset 0, in order:
///     for (const Chunk chunk : Chunks(size)) ...
class Chunks {
 public:
  explicit Chunks(unsigned long long size) : size_(size), chunkBytes_(ChunkBytes()) {}

  struct End {};
  class Iterator {
   public:
    explicit Iterator(const Chunks& range) : range_(range) {}
    Chunk operator*() const {
      return {offset_, static_cast<DWORD>(std::min<unsigned long long>(range_.size_ - offset_, range_.chunkBytes_))};
    }
    Iterator& operator++() {
      offset_ += (**this).bytes;
      return *this;
    }
    bool operator!=(End) const { return offset_ < range_.size_; }

   private:
    const Chunks& range_;
    unsigned long long offset_ = 0;
  };
  Iterator begin() const { return Iterator(*this); }
  End end() const { return {}; }

 private:
  const unsigned long long size_;
  const DWORD chunkBytes_;
};

/// A view made with MapViewOfFileX, waiting up to 10 s for address space. The end of the scope unmaps it, also when a
/// fault goes through, and keeps the last error.
class ScopedView {
 public:
  ScopedView() = default;
  ScopedView(SourcePosition caller, HANDLE mapping, DWORD access, unsigned long long offset, SIZE_T bytes);
  ScopedView(const ScopedView&) = delete;
  ScopedView& operator=(const ScopedView&) = delete;
  ~ScopedView();

  explicit operator bool() const { return view_ != nullptr; }
  BYTE* Get() const { return view_; }
  /// Flushes from `from` on when memory is short, then unmaps by that address, which may be any in the view. Negative:
  /// never short.
  void Finish(int shortageThreshold, const BYTE* from, HANDLE file);
  void Finish(int shortageThreshold) { Finish(shortageThreshold, view_, INVALID_HANDLE_VALUE); }

 private:
  SourcePosition caller_{};
  BYTE* view_ = nullptr;
};

}  // namespace qel
