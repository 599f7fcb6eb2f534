/// @file
/// The end of a formatted text: a buffer that may be too small.
#pragma once
#include <cstddef>

namespace qel {

/// Writes into the buffer what fits, one place kept for the terminator, and goes on counting what does not: the length
/// is always that of the whole text.
class TextSink {
 public:
  TextSink(char* buffer, std::size_t size) : buffer_(buffer), size_(size) {}

  void Put(char character) {
    if (length_ + 1 < size_) buffer_[length_] = character;
    ++length_;
  }
  // The loops below work on local variables: since a char may alias anything, the compiler would otherwise read the
  // members anew for each character.
  void Put(const char* text, std::size_t count) {
    char* const out = End();
    const std::size_t fitting = Fitting(count);
    for (std::size_t i = 0; i < fitting; ++i) out[i] = text[i];
    length_ += count;
  }
  /// At most `limit` characters, up to the terminator; nothing behind them is read.
  void PutText(const char* text, std::size_t limit) {
    char* const out = End();
    const std::size_t fitting = Fitting(limit);
    std::size_t count = 0;
    for (; count < fitting && text[count]; ++count) out[count] = text[count];
    if (count == fitting)
      while (count < limit && text[count]) ++count;
    length_ += count;
  }
  /// Nothing when `count` is negative.
  void Fill(char character, int count) {
    if (count <= 0) return;
    char* const out = End();
    const std::size_t fitting = Fitting(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < fitting; ++i) out[i] = character;
    length_ += static_cast<std::size_t>(count);
  }
  /// Ends the text and returns its length.
  std::size_t Terminate() {
    if (size_ > 0) buffer_[length_ < size_ ? length_ : size_ - 1] = '\0';
    return length_;
  }

 private:
  // Never beyond the end of the buffer, where the length goes on.
  char* End() const { return buffer_ + (length_ < size_ ? length_ : size_); }
  std::size_t Fitting(std::size_t count) const {
    const std::size_t room = length_ + 1 < size_ ? size_ - 1 - length_ : 0;
    return count < room ? count : room;
  }

  char* const buffer_;
  const std::size_t size_;
  std::size_t length_ = 0;
};

}  // namespace qel
