// clang-format off
// fuzz-sources: qelibaselib/platform/linux/modules/lzma_decoder.cpp qelibaselib/platform/linux/modules/mapped_pages.cpp qelibaselib/platform/linux/modules/xz_decoder.cpp
// clang-format on

// The unpacking of mini debug information on any bytes: damage gives no output or wrong output, nothing else.
#include <cstdlib>

#include "qelibaselib/platform/linux/modules/xz_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t bytes) {
  size_t size = 0;
  const auto pages = qel::layer::DecodeXz({data, bytes}, size);
  if (pages.data() && pages.size() < size) std::abort();
  return 0;
}
