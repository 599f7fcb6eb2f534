#include "qelibaselib/platform/linux/base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"

namespace qel::layer {

bool ReadWhole(int descriptor, size_t limit, std::string* text) {
  char block[4096];
  while (text->size() < limit) {
    const ssize_t got =
        RetryOnInterrupt([&] { return read(descriptor, block, std::min(sizeof block, limit - text->size())); });
    if (got < 0) return false;
    if (got == 0) break;
    text->append(block, got);
  }
  return true;
}

std::string ReadSystemFile(const char* path) {
  constexpr size_t kLimitBytes = 4 << 20;
  std::string text;
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return text;
  if (!ReadWhole(file.get(), kLimitBytes, &text)) text.clear();
  return text;
}

}  // namespace qel::layer
