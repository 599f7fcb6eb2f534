/// @file
/// The named mutex of a channel or report.
#pragma once
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/base/source_position.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

/// "Local\<stem>_<user>" in 260 characters; the user reads "$$" when the system does not tell it.
struct LogMutexName {
  explicit LogMutexName(const wchar_t* stem);
  wchar_t text[MAX_PATH];
};

/// Creates the mutex through CreateMutexX, waits for it, and gives it back and closes it at the end of the scope.
class NamedLogMutex {
 public:
  /// Creates without waiting. `position` is what CreateMutexX logs.
  NamedLogMutex(SourcePosition position, const wchar_t* stem);
  NamedLogMutex(const NamedLogMutex&) = delete;
  NamedLogMutex& operator=(const NamedLogMutex&) = delete;
  ~NamedLogMutex();
  bool Exists() const { return static_cast<bool>(mutex_); }
  /// TRUE when the mutex is now owned; one whose owner died counts as acquired.
  bool Acquire(DWORD timeoutMs);
  /// The last Acquire took it over from an owner that died.
  bool Abandoned() const { return abandoned_; }

 private:
  const ScopedObject mutex_;
  bool abandoned_ = false;
};

}  // namespace qel
