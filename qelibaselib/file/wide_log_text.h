/// @file
/// Wide text in a log line.
#pragma once
#include "qelibaselib/base/string_converter.h"

namespace qel {

/// The narrow form of a wide text, "NULL" for a null pointer. Allocates: only for a line that is going to be written.
class WideLogText {
 public:
  explicit WideLogText(const wchar_t* text) : converter_(text), text_(converter_.Narrow()) {}
  const char* Get() const { return text_ ? text_ : "NULL"; }

 private:
  CStrCnv converter_;
  const char* text_;
};

}  // namespace qel
