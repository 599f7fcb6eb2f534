// fuzz-sources: qelibaselib/platform/linux/system/profile_text.cpp

// Profiles on any bytes: the first line names the section, the second one the key. A value that is found lies inside
// the text and on one line of it.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "qelibaselib/platform/linux/system/profile_text.h"

namespace {

std::string_view TakeLine(std::string_view* text) {
  const size_t length = text->find('\n');
  const std::string_view line = text->substr(0, length);
  *text = length == text->npos ? std::string_view{} : text->substr(length + 1);
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  std::string_view text(reinterpret_cast<const char*>(bytes), count);
  const std::string_view section = TakeLine(&text), key = TakeLine(&text);
  const auto value = qel::layer::ProfileValue(text, section, key);
  if (!value || value->empty()) return 0;
  const bool isInside = value->data() >= text.data() && value->data() + value->size() <= text.data() + text.size();
  if (!isInside || value->find('\n') != value->npos) std::abort();
  return 0;
}
