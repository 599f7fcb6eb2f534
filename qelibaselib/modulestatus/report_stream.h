/// @file
/// The stream that a report goes to.
#pragma once
#include <cstdarg>
#include <cstdio>

#include "qelibaselib/base/format.h"

namespace qel::report {

/// Prints lines and flushes each, and counts the characters that the stream took. After a line that could not be
/// written, all further ones are left out. Does not own the stream.
class ReportStream {
 public:
  explicit ReportStream(std::FILE* stream) : stream_(stream) {}

  // The first argument of a member function is the object itself.
  void Print(const char* format, ...) QEL_FORMAT(2, 3) {
    if (std::ferror(stream_)) return;
    std::va_list arguments;
    va_start(arguments, format);
    const int printed = FormatToStreamV(stream_, format, arguments);
    va_end(arguments);
    if (printed > 0) written_ += printed;
    std::fflush(stream_);
  }

  int written() const { return written_; }

 private:
  std::FILE* const stream_;
  int written_ = 0;
};

}  // namespace qel::report
