/// @file
/// The wildcards of a search.
#pragma once
#include <string>
#include <string_view>

namespace qel::layer {

/// Matches names as the file system of Windows does: "*.*" means every name, "?" also no character before a dot or the
/// end, "*." names without a dot; blanks and dots at the end of a pattern mean nothing else. Case counts.
class NamePattern {
 public:
  explicit NamePattern(std::wstring_view text);
  bool MatchesAll() const { return pattern_ == L"*"; }
  bool Matches(std::wstring_view name) const;

 private:
  std::wstring pattern_;
};

/// The order of an enumeration: by upper-cased UTF-16 code unit.
bool NameLess(std::wstring_view first, std::wstring_view second);

}  // namespace qel::layer
