/// @file
/// A path as the system gets it.
#pragma once
#include <cstddef>
#include <cstring>

#include "qelibaselib/platform/win32.h"

namespace qel {

/// The caller's path in 260 characters, cut when longer, without one pair of enclosing double quotes. Null is the empty
/// path. A pointer that cannot be read faults: make it inside the guard.
class CleanPath {
 public:
  explicit CleanPath(const wchar_t* path) {
    std::size_t length = 0;
    if (path) {
      for (; length < MAX_PATH - 1 && path[length] != L'\0'; ++length) text_[length] = path[length];
    }
    text_[length] = L'\0';
    PathUnquoteSpacesW(text_);
  }

  CleanPath(const CleanPath& other) { std::memcpy(text_, other.text_, (wcslen(other.text_) + 1) * sizeof(wchar_t)); }
  CleanPath& operator=(const CleanPath&) = delete;

  const wchar_t* Get() const { return text_; }
  operator const wchar_t*() const { return text_; }  // NOLINT(google-explicit-constructor): it stands for the path

  /// The path without its last component.
  CleanPath Folder() const {
    CleanPath folder(*this);
    PathRemoveFileSpecW(folder.text_);
    return folder;
  }

 private:
  wchar_t text_[MAX_PATH];
};

}  // namespace qel
