#include "qelibaselib/platform/linux/base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qel::layer {

bool ReadWhole(int descriptor, size_t limit, std::string* text) {
  char block[4096];
  while (text->size() < limit) {
    const ssize_t got = read(descriptor, block, std::min(sizeof block, limit - text->size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    text->append(block, got);
  }
  return true;
}

std::string ReadSystemFile(const char* path) {
  constexpr size_t kLimitBytes = 4 << 20;
  std::string text;
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return text;
  if (!ReadWhole(descriptor, kLimitBytes, &text)) text.clear();
  close(descriptor);
  return text;
}

}  // namespace qel::layer
