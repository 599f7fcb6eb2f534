/// @file
/// Text in buffers of fixed size: cut where it is full, always terminated.
#pragma once
#include <cstddef>

namespace qel {

template <std::size_t kSize>
class WideText {
 public:
  explicit WideText(wchar_t (&buffer)[kSize]) : buffer_(buffer) { buffer_[0] = L'\0'; }
  /// A null text reads "(null)".
  WideText& operator<<(const wchar_t* text) {
    for (text = text ? text : L"(null)"; *text && length_ + 1 < kSize; ++text) buffer_[length_++] = *text;
    buffer_[length_] = L'\0';
    return *this;
  }

 private:
  wchar_t (&buffer_)[kSize];
  std::size_t length_ = 0;
};

/// Copies what fits. A null `source` is a fault of the caller and faults.
template <std::size_t kSize, class Character>
void CopyBounded(Character (&target)[kSize], const Character* source) {
  std::size_t length = 0;
  for (; length + 1 < kSize && source[length]; ++length) target[length] = source[length];
  target[length] = Character{};
}

}  // namespace qel
