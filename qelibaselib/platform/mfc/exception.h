/// @file
/// The framework's exception classes, as far as they are used: thrown by pointer, deleted by who catches them.
/// Header-only, so that a host's exception and the library's are one type.
#pragma once
#include <cstring>

#include "qelibaselib/platform/win32.h"

class CException {
 public:
  CException() = default;
  /// FALSE for an object that Delete must leave alone.
  explicit CException(BOOL autoDelete) : autoDelete_(autoDelete) {}
  CException(const CException&) = delete;
  CException& operator=(const CException&) = delete;
  virtual ~CException() = default;

  /// Puts the exception's text, cut to `size` characters with the terminator, into `text`. FALSE (and an empty text)
  /// when it has none.
  virtual BOOL GetErrorMessage(LPSTR text, UINT size, PUINT helpContext = nullptr) const {
    if (helpContext) *helpContext = 0;
    if (text && size > 0) text[0] = '\0';
    return FALSE;
  }

  /// Frees an object from the heap; every catch clause calls it once.
  void Delete() {
    if (autoDelete_) delete this;
  }

 private:
  const BOOL autoDelete_ = TRUE;
};
