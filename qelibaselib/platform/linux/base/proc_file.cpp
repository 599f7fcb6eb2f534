#include "qelibaselib/platform/linux/base/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

namespace qel::layer {

bool ProcFile::IsText(std::string_view text) const {
  if (!beginning_.empty()) return text.starts_with(beginning_);
  return !text.empty() && text.back() == '\n' && text.find_first_not_of("0123456789 \n") == text.npos;
}

std::string_view ProcFile::Read(char* buffer, size_t size) {
  MarkedDescriptor kept = kept_.load(std::memory_order_acquire);
  if (!kept.IsNone()) {
    const ssize_t got = pread(kept.number(), buffer, size, 0);
    if (got > 0 && IsText({buffer, static_cast<size_t>(got)})) return {buffer, static_cast<size_t>(got)};
  }
  // The former descriptor is never closed: its number may belong to something of the host's by now. One that is still
  // ours, and only could not be read this time, stays.
  Descriptor opened(open(path_, O_RDONLY | O_CLOEXEC));
  if (opened.get() < 0) return {};
  const ssize_t got = pread(opened.get(), buffer, size, 0);
  if (!kept.IsOurs() && kept_.compare_exchange_strong(kept, MarkedDescriptor(opened.get())))
    static_cast<void>(opened.Detach());
  return got > 0 ? std::string_view{buffer, static_cast<size_t>(got)} : std::string_view{};
}

void ProcFile::CloseInChild() { kept_.exchange({}).Close(); }

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
