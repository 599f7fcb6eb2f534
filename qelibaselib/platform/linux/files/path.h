/// @file
/// A Win32 file name as the system's path and back, and the errors that depend on it.
///
/// The two worlds allow different names. A name of this system may hold any byte but NUL and the slash; a component of
/// a Win32 path holds none of `\ * ? " < > |`, no control character, and no colon as its second character, for those
/// mean separators, wildcards, quotes and drives. So the layer shows such a character as U+F000 plus the character, and
/// takes that character for the plain one on the way in. A name that really holds one of these stand-ins is shown byte
/// by byte, as bytes that are no UTF-8 are (base/utf8.h). Therefore every name has one form, the form leads back to
/// exactly that name, and no name that a search lists is ever read as a path, a drive, or a pattern. Nothing else is
/// changed: dots and blanks at the end belong to a name, and a colon further on is an ordinary character.
///
/// This holds for file names alone: for every wide name that a function takes as a path (SystemPath), and for the names
/// that FindFirstFileW, FindNextFileW, GetFullPathNameW and GetModuleFileNameW give (NameReader). WideCharToMultiByte
/// and MultiByteToWideChar convert text, which knows no stand-ins; a narrow file name is the UTF-8 of the wide one,
/// except where the layer hands out the system's own bytes (GetModuleFileNameA, the names of disks).
#pragma once
#include <cstddef>

#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

constexpr bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
constexpr bool IsSeparator(char c) { return c == '\\' || c == '/'; }

/// Characters that no file name holds; a search takes all but the bar as wildcards.
constexpr bool IsWildcard(wchar_t c) { return c == L'?' || c == L'*' || c == L'<' || c == L'>' || c == L'"'; }
constexpr bool IsForbidden(wchar_t c) { return (c > 0 && c < 32) || c == L'|' || IsWildcard(c); }
/// ASCII that needs no closer look in a path: no forbidden character is among it.
constexpr bool IsOrdinary(wchar_t c) { return (c >= L'@' && c <= L'{') || (c >= L'+' && c <= L';'); }

constexpr wchar_t kStandInBase = 0xF000;
constexpr bool HasStandIn(wchar_t c) { return IsForbidden(c) || c == L'\\' || c == L':'; }
constexpr bool IsStandIn(wchar_t c) {
  return c > kStandInBase && c < kStandInBase + 0x80 && HasStandIn(c - kStandInBase);
}

/// Reads a path of the system as Win32 callers see it, character by character; slashes stay what they are.
class NameReader {
 public:
  NameReader(const char* path, const char* end) : at_(path), end_(end) {}

  bool AtEnd() const { return at_ == end_; }
  wchar_t Read();

 private:
  const char *at_, *end_;
  size_t index_ = 0;  // of the next character, within its component
};

/// The path of a Win32 name: separators are single slashes, "." and ".." are resolved in the text. Small enough for the
/// stack, and nothing in it is set until Parse.
class SystemPath {
 public:
  static constexpr size_t kSize = 4096;

  /// Returns the Win32 error of a name that is none: 3 for an empty one, a drive letter, or more than 259 characters
  /// without the prefix \\?\; 53 for \\server; 2 for \\.\device; 123 for forbidden characters.
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
  bool IsAbsolute() const { return text_[0] == '/'; }

  /// Of the folder of the last component; 0 for a plain name.
  size_t FolderLength() const;

 private:
  DWORD AddComponents(LPCWSTR name, LPCWSTR end);
  bool GoToParent();
  bool EndsInParent() const;

  size_t length_, start_, characters_;
  bool endsInSeparator_;
  char text_[kSize];
};

/// The Win32 error of a system call that failed with `number` on `path`: a missing file is 2, a missing folder on the
/// way to it is 3.
DWORD PathError(int number, const SystemPath& path);

}  // namespace qel::layer
