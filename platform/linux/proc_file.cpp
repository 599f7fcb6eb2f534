#include "platform/linux/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

namespace qel::layer {

bool ProcFile::IsOurs(std::string_view text) const {
  if (!beginning_.empty()) return text.starts_with(beginning_);
  return !text.empty() && text[0] >= '0' && text[0] <= '9';
}

std::string_view ProcFile::Read(char* buffer, size_t size) {
  int kept = descriptor_.load(std::memory_order_acquire);
  if (kept >= 0) {
    const ssize_t got = pread(kept, buffer, size, 0);
    if (got > 0 && IsOurs({buffer, static_cast<size_t>(got)})) return {buffer, static_cast<size_t>(got)};
  }
  // Not closed before it is replaced: the number may belong to something of the host's by now.
  const int opened = open(path_, O_RDONLY | O_CLOEXEC);
  if (opened < 0) return {};
  const ssize_t got = pread(opened, buffer, size, 0);
  if (!descriptor_.compare_exchange_strong(kept, opened)) close(opened);
  return got > 0 ? std::string_view{buffer, static_cast<size_t>(got)} : std::string_view{};
}

void ProcFile::CloseInChild() {
  const int kept = descriptor_.exchange(-1);
  if (kept >= 0) close(kept);
}

unsigned long long FieldOf(std::string_view text, std::string_view name, unsigned long long fallback) {
  size_t at = text.starts_with(name) ? 0 : std::string_view::npos;
  for (size_t from = 0; at == std::string_view::npos;) {
    const size_t line = text.find('\n', from);
    if (line == std::string_view::npos) return fallback;
    from = line + 1;
    if (text.substr(from).starts_with(name)) at = from;
  }
  at = text.find_first_not_of(" \t", at + name.size());
  if (at == std::string_view::npos || text[at] < '0' || text[at] > '9') return fallback;
  unsigned long long value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) value = value * 10 + (text[at] - '0');
  return value;
}

}  // namespace qel::layer
