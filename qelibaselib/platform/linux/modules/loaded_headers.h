/// @file
/// The program headers of a loaded module.
#pragma once
#include <link.h>

#include <cstdint>
#include <span>

namespace qel::layer {

/// A copy, since the headers lie on pages of the module's file, which are gone when the file was cut. Empty then.
class LoadedHeaders {
 public:
  LoadedHeaders() = default;
  explicit LoadedHeaders(const dl_phdr_info& info);

  std::span<const Elf32_Phdr> all() const { return {headers_, count_}; }
  /// Where they lie in memory.
  uint32_t place() const { return place_; }

 private:
  static constexpr uint32_t kMost = 24;
  Elf32_Phdr headers_[kMost];
  uint32_t count_ = 0;
  uint32_t place_ = 0;
};

/// The addresses of a loaded module: from the start of its first page to behind its last byte.
struct LoadedRange {
  uint32_t start = 0;
  uint32_t end = 0;  ///< 0 when nothing of the module is in memory
};
/// By the headers, or, when there are none, by what the loader knows.
LoadedRange FindLoadedRange(const dl_phdr_info& info, const LoadedHeaders& headers);

}  // namespace qel::layer
