#include "qelibaselib/platform/linux/base/proc_file.h"

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

// From where the last field was to the end.
bool FieldReader::GoTo(std::string_view name) {
  for (;;) {
    if (!rest_.empty() && rest_[0] == name[0] && rest_.starts_with(name)) return true;
    const size_t line = rest_.find('\n');
    if (line == std::string_view::npos) return false;
    rest_.remove_prefix(line + 1);
  }
}

unsigned long long FieldReader::Find(std::string_view name) {
  if (!GoTo(name)) {
    rest_ = text_;
    if (!GoTo(name)) return 0;
  }
  return LeadingNumber(rest_.substr(name.size()));
}

unsigned long long LeadingNumber(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end && (*at == ' ' || *at == '\t')) ++at;
  unsigned long long value = 0;
  for (; at != end && *at >= '0' && *at <= '9'; ++at) value = value * 10 + static_cast<unsigned>(*at - '0');
  return value;
}

}  // namespace qel::layer
