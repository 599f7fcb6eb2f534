/// @file
/// The framework's narrow string, as far as it is used: formatted text of any length.
#pragma once
#include <string>

#ifdef __MINGW32__
#define QEL_MEMBER_FORMAT __attribute__((format(ms_printf, 2, 3)))
#else
#define QEL_MEMBER_FORMAT
#endif

class CStringA {
 public:
  /// The conversions of qelibaselib/format.h. Throws std::bad_alloc without memory.
  void Format(const char* format, ...) QEL_MEMBER_FORMAT;
  const char* GetString() const { return text_.c_str(); }
  operator const char*() const {
    return text_.c_str();
  }  // NOLINT(google-explicit-constructor): as the framework has it
  int GetLength() const { return static_cast<int>(text_.size()); }

 private:
  std::string text_;
};
