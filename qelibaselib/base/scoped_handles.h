/// @file
/// Owners of handles. There is one type for each failure value and closing call, so that null and INVALID_HANDLE_VALUE
/// are never mixed up. The end of the scope closes and keeps the last error.
///
///     const qel::ScopedFile file(CreateFileW(...));
///     if (!file) return FALSE;
#pragma once
#include <utility>

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

template <class Kind>
class ScopedHandle {
 public:
  ScopedHandle() = default;
  explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
  ScopedHandle(ScopedHandle&& other) noexcept : handle_(other.Release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~ScopedHandle() {
    if (!*this) return;
    const PreserveLastError keep;
    Kind::Close(handle_);
  }

  explicit operator bool() const { return handle_ != Kind::None(); }
  HANDLE Get() const { return handle_; }
  /// Closes ahead of the scope's end; FALSE when the system refuses.
  BOOL Close() { return Kind::Close(Release()); }
  /// Hands the handle over to the caller, who closes it from now on.
  HANDLE Release() { return std::exchange(handle_, Kind::None()); }

 private:
  HANDLE handle_ = Kind::None();
};

struct FileKind {
  static HANDLE None() { return INVALID_HANDLE_VALUE; }
  static BOOL Close(HANDLE file) { return CloseHandle(file); }
};
struct FindKind {
  static HANDLE None() { return INVALID_HANDLE_VALUE; }
  static BOOL Close(HANDLE find) { return FindClose(find); }
};
struct ObjectKind {
  static HANDLE None() { return nullptr; }
  static BOOL Close(HANDLE object) { return CloseHandle(object); }
};

using ScopedFile = ScopedHandle<FileKind>;
using ScopedFind = ScopedHandle<FindKind>;
/// Mappings, events, mutexes, threads: all whose creation answers null when it fails.
using ScopedObject = ScopedHandle<ObjectKind>;
using ScopedMapping = ScopedObject;

}  // namespace qel
