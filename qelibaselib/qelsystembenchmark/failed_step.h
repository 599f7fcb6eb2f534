/// @file
/// The last error of the step that an exception ends.
#pragma once
#include <exception>

#include "qelibaselib/platform/win32.h"

namespace qel {

/// Stands behind the objects of a guarded body, so that it ends first when an exception leaves the body: it then notes
/// the last error, before destructors and the guard's report change that.
class FailedStepError {
 public:
  explicit FailedStepError(DWORD& error) : error_(error), exceptionsBefore_(std::uncaught_exceptions()) {}
  FailedStepError(const FailedStepError&) = delete;
  FailedStepError& operator=(const FailedStepError&) = delete;
  ~FailedStepError() {
    if (std::uncaught_exceptions() > exceptionsBefore_) error_ = GetLastError();
  }

 private:
  DWORD& error_;
  const int exceptionsBefore_;
};

}  // namespace qel
