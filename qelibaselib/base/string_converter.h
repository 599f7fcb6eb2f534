/// @file
/// Text in both widths.
#pragma once
#include "qelibaselib/platform/win32.h"

/// Owns a copy of a text and makes its other form when that is first asked for. A null text is null in both forms.
/// Throws std::bad_alloc.
class CStrCnv {
 public:
  explicit CStrCnv(const char* narrow);
  explicit CStrCnv(const wchar_t* wide);
  CStrCnv(const CStrCnv&) = delete;
  CStrCnv& operator=(const CStrCnv&) = delete;
  virtual ~CStrCnv();

  /// Valid until the object's end.
  const char* Narrow();
  const wchar_t* Wide();

 private:
  char* narrow_ = nullptr;
  wchar_t* wide_ = nullptr;
};
