/// @file
/// A formatted text of any length that needs the heap only when it is long.
#pragma once
#include <memory>

#include "qelibaselib/base/format.h"

namespace qel {

class FormattedText {
 public:
  FormattedText() {}  // NOLINT(modernize-use-equals-default): leaves the buffer as it is
  FormattedText(const FormattedText&) = delete;
  FormattedText& operator=(const FormattedText&) = delete;

  /// Replaces the text. False, and an empty text, without memory.
  bool Format(const char* format, ...) QEL_FORMAT(2, 3);
  bool FormatV(const char* format, std::va_list arguments);
  const char* Text() const { return long_ ? long_.get() : short_; }
  std::size_t Length() const { return length_; }

 private:
  static constexpr std::size_t kShortBytes = 4096;
  std::unique_ptr<char[]> long_;
  std::size_t length_ = 0;
  char short_[kShortBytes];
};

}  // namespace qel
