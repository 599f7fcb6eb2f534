/// @file
/// Where a reader of records has its bytes from.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace qellog {

class ByteSource {
 public:
  ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;
  virtual ~ByteSource() = default;
  /// Reads at most `size` bytes; 0 at the end, also after a failure.
  virtual std::size_t Read(char* buffer, std::size_t size) = 0;
};

/// Bytes in memory, which outlive the source.
class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::string_view bytes) : rest_(bytes) {}
  std::size_t Read(char* buffer, std::size_t size) override {
    const std::size_t count = std::min(size, rest_.size());
    if (count > 0) std::memcpy(buffer, rest_.data(), count);
    rest_.remove_prefix(count);
    return count;
  }

 private:
  std::string_view rest_;
};

}  // namespace qellog
