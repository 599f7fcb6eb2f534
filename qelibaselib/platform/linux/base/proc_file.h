/// @file
/// A file of /proc that is kept open, so that one system call reads it.
#pragma once
#include <atomic>
#include <cstddef>
#include <string_view>

#include "qelibaselib/platform/linux/base/marked_descriptor.h"

namespace qel::layer {

/// Safe for several threads, which share one descriptor without a lock. A descriptor that the host closed, and perhaps
/// opened again for something else, is noticed by the text that it gives and replaced.
class ProcFile {
 public:
  /// `beginning`: what the text begins with; empty for a line of nothing but numbers.
  constexpr ProcFile(const char* path, std::string_view beginning) : path_(path), beginning_(beginning) {}
  /// The text, cut to the buffer; empty when it cannot be read.
  std::string_view Read(char* buffer, size_t size);
  /// In a forked child, for a file that is the process's own: the next reading opens it anew.
  void CloseInChild();

 private:
  bool IsText(std::string_view text) const;
  const char* const path_;
  const std::string_view beginning_;
  std::atomic<MarkedDescriptor> kept_{};
};

/// The number behind a name such as "MemTotal:" at the beginning of a line; 0 when it is not there. The text is read
/// once when the names are asked for in its order.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : text_(text), rest_(text) {}
  unsigned long long Find(std::string_view name);

 private:
  bool GoTo(std::string_view name);
  const std::string_view text_;
  std::string_view rest_;
};

/// The number at the beginning of a text, behind any blanks; 0 when there is none.
unsigned long long LeadingNumber(std::string_view text);

}  // namespace qel::layer
