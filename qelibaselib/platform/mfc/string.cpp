#include "qelibaselib/platform/mfc/string.h"

#include <new>

#include "qelibaselib/base/format.h"

void CStringA::Format(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  try {
    std::string text(qel::FormatTextV(nullptr, 0, format, arguments), '\0');
    qel::FormatTextV(text.data(), text.size() + 1, format, arguments);
    text_ = std::move(text);
  } catch (...) {
    va_end(arguments);
    throw;
  }
  va_end(arguments);
}
