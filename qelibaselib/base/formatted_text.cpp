#include "qelibaselib/base/formatted_text.h"

#include <new>

namespace qel {

bool FormattedText::FormatV(const char* format, std::va_list arguments) {
  long_.reset();
  length_ = FormatTextV(short_, sizeof(short_), format, arguments);
  if (length_ < sizeof(short_)) return true;
  const std::size_t size = length_ + 1;
  long_.reset(new (std::nothrow) char[size]);
  if (!long_) {
    length_ = 0;
    short_[0] = '\0';
    return false;
  }
  const std::size_t needed = FormatTextV(long_.get(), size, format, arguments);
  if (needed < length_) length_ = needed;  // a string that another thread changes meanwhile
  return true;
}

bool FormattedText::Format(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const bool formatted = FormatV(format, arguments);
  va_end(arguments);
  return formatted;
}

}  // namespace qel
