/// @file
/// A Win32 file name as the system's path, and the errors that depend on it.
#pragma once
#include <cstddef>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

constexpr bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
constexpr bool IsSeparator(char c) { return c == '\\' || c == '/'; }

/// Characters that no file name holds; a search takes all but the bar as wildcards.
constexpr bool IsWildcard(wchar_t c) { return c == L'?' || c == L'*' || c == L'<' || c == L'>' || c == L'"'; }
constexpr bool IsForbidden(wchar_t c) { return (c > 0 && c < 32) || c == L'|' || IsWildcard(c); }
/// ASCII that stands for itself, for the most part: what is looked at no further.
constexpr bool IsOrdinary(wchar_t c) { return (c >= L'@' && c <= L'{') || (c >= L'+' && c <= L';'); }

/// The path of a Win32 name: separators are single slashes, "." and ".." are resolved in the text. Small enough for the
/// stack, and nothing in it is set until Parse.
class SystemPath {
 public:
  static constexpr size_t kSize = 4096;

  /// Returns the Win32 error of a name that is none: 3 for an empty one, a drive letter, or more than 259 characters
  /// without the prefix \\?\; 53 for \\server; 123 for forbidden characters.
  [[nodiscard]] DWORD Parse(LPCWSTR name) { return Parse(name, nullptr); }
  /// The same for the characters before `end`, which may be null.
  [[nodiscard]] DWORD Parse(LPCWSTR name, LPCWSTR end);

  /// The same for a name that must be a file's: a separator at its end makes it none (123 behind a file or behind
  /// nothing, 3 behind a folder or in a folder that is missing).
  [[nodiscard]] DWORD ParseFile(LPCWSTR name) {
    const DWORD error = Parse(name);
    return error || !endsInSeparator_ ? error : SeparatorError();
  }

  /// The error of a name that must be a file's but ends in a separator.
  DWORD SeparatorError() const;
  const char* text() const { return text_; }
  size_t length() const { return length_; }
  bool EndsInSeparator() const { return endsInSeparator_; }
  bool IsRoot() const { return length_ == 1 && text_[0] == '/'; }

  /// Of the folder of the last component; 0 for a plain name.
  size_t FolderLength() const;

 private:
  DWORD AddComponents(LPCWSTR name, LPCWSTR end);
  bool GoToParent();
  void RemoveTrailingDotsAndBlanks();
  bool EndsInParent() const;

  size_t length_, start_, characters_;
  bool endsInSeparator_;
  char text_[kSize];
};

/// The Win32 error of a system call that failed with `number` on `path`: a missing file is 2, a missing folder on the
/// way to it is 3.
DWORD PathError(int number, const SystemPath& path);

}  // namespace qel::layer
