#include "qelibaselib/platform/linux/modules/mapped_pages.h"

#include <sys/mman.h>

#include <utility>

#include "qelibaselib/platform/linux/base/page_size.h"

namespace qel::layer {

MappedPages::MappedPages(void* address, std::size_t bytes) {
  if (address == MAP_FAILED) return;
  data_ = static_cast<std::byte*>(address);
  size_ = bytes;
}

MappedPages::MappedPages(MappedPages&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedPages& MappedPages::operator=(MappedPages&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  return *this;
}

MappedPages::~MappedPages() {
  if (data_) munmap(data_, size_);
}

MappedPages MappedPages::Allocate(std::size_t bytes) {
  return {mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), bytes};
}

void MappedPages::Shrink(std::size_t bytes) {
  const std::size_t kept = (bytes + kPageSize - 1) / kPageSize * kPageSize;
  if (kept >= size_) return;
  munmap(data_ + kept, size_ - kept);
  size_ = kept;
  if (kept == 0) data_ = nullptr;
}

}  // namespace qel::layer
