/// @file
/// The thread's last error, kept over what logs or cleans up.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// Puts the last error back as it was, whatever happens in the scope. For what must not be seen by the caller.
class PreserveLastError {
 public:
  PreserveLastError() : error_(GetLastError()) {}
  PreserveLastError(const PreserveLastError&) = delete;
  PreserveLastError& operator=(const PreserveLastError&) = delete;
  ~PreserveLastError() { SetLastError(error_); }
  DWORD error() const { return error_; }

 private:
  const DWORD error_;
};

/// The wrappers' rule: an error other than 0 reaches the caller, 0 leaves the last error as it is.
inline void RestoreError(DWORD savedError) {
  if (savedError != ERROR_SUCCESS) SetLastError(savedError);
}

}  // namespace qel
