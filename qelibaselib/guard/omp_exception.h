/// @file
/// The fact of an exception inside an OpenMP region, carried to the code behind it.
#pragma once
#include "qelibaselib/platform/win32.h"

/// No exception may cross the end of a region. The code inside catches, fills one of these and reports after the
/// region.
class COmpException {
 public:
  COmpException() = default;
  COmpException(DWORD error, int line, const char* sourceFile) : error_(error), line_(line), sourceFile_(sourceFile) {}
  COmpException(const COmpException& other)
      : error_(other.error_), line_(other.line_), sourceFile_(other.sourceFile_) {}
  COmpException& operator=(const COmpException&) = default;
  virtual ~COmpException() = default;

  DWORD error() const { return error_; }
  int line() const { return line_; }
  const char* sourceFile() const { return sourceFile_; }

 private:
  DWORD error_ = ERROR_SUCCESS;
  int line_ = 0;
  const char* sourceFile_ = nullptr;
};
