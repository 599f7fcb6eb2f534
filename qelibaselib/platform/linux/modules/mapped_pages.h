/// @file
/// The owner of mapped pages.
#pragma once
#include <cstddef>

namespace qel::layer {

/// Anonymous or file pages, unmapped at the end of the scope.
class MappedPages {
 public:
  constexpr MappedPages() = default;
  /// Takes over the mapping; nothing for a failed one.
  MappedPages(void* address, std::size_t bytes);
  MappedPages(MappedPages&& other) noexcept;
  MappedPages& operator=(MappedPages&& other) noexcept;
  ~MappedPages();

  /// New pages of zeros; none when there is no room.
  static MappedPages Allocate(std::size_t bytes);

  std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }
  /// Gives the pages behind the first `bytes` back.
  void Shrink(std::size_t bytes);

 private:
  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace qel::layer
