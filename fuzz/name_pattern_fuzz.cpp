// fuzz-sources: qelibaselib/platform/linux/files/name_pattern.cpp
// Patterns and names of any characters, the two apart by a line feed: the matcher must answer as a plain one does that
// tries every way, and the order of names must be one.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "qelibaselib/platform/linux/files/name_pattern.h"
#include "qelibaselib/platform/linux/files/path.h"

using namespace qel::layer;

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

// The pattern's wildcards as they stand for a search, one for each of the file system's five.
class PlainMatcher {
 public:
  PlainMatcher(std::wstring_view pattern, std::wstring_view name)
      : pattern_(pattern), name_(name), dots_(name == L"." || name == L"..") {}

  bool Matches(size_t p = 0, size_t n = 0) const {
    if (p == pattern_.size()) return n == name_.size();
    const bool atEnd = n == name_.size(), one = !atEnd && Matches1(p, n);
    switch (pattern_[p]) {
      case L'*':
        return pattern_.size() > p + 1 && pattern_[p + 1] == L'.' ? MatchesToLastDot(p, n)
                                                                  : Matches(p + 1, n) || (!atEnd && Matches(p, n + 1));
      case L'<':
        return MatchesToLastDot(p, n);
      case L'?':
      case L'>':
        return one || ((atEnd || (name_[n] == L'.' && !dots_)) && Matches(p + 1, n));
      default:
        return one || (atEnd && IsDotWildcard(p) && Matches(p + 1, n));
    }
  }

 private:
  bool IsDotWildcard(size_t p) const {
    const wchar_t next = p + 1 < pattern_.size() ? pattern_[p + 1] : 0;
    return pattern_[p] == L'"' || (pattern_[p] == L'.' && (next == L'?' || next == L'*'));
  }
  // Whether one character is taken by the wildcard or character at `p`, and the rest by the rest.
  bool Matches1(size_t p, size_t n) const {
    const wchar_t wanted = pattern_[p], c = name_[n];
    const bool isOne = wanted == L'?' || wanted == L'>';
    const bool takes = isOne ? c != L'.' || dots_ : wanted == L'"' ? c == L'.' : c == wanted;
    return takes && Matches(p + 1, n + 1);
  }
  bool MatchesToLastDot(size_t p, size_t n) const {
    if (Matches(p + 1, n)) return true;
    const bool atLastDot = !dots_ && n == name_.rfind(L'.');
    return n < name_.size() && !atLastDot && MatchesToLastDot(p, n + 1);
  }

  std::wstring_view pattern_, name_;
  bool dots_;
};

void Check(const std::wstring& pattern, const std::wstring& name) {
  const NamePattern tested(pattern);
  const bool matches = tested.Matches(name);
  Require(NamePattern(L"*").Matches(name) && NamePattern(L"*.*").Matches(name));
  Require(!(NameLess(pattern, name) && NameLess(name, pattern)) && !NameLess(name, name));
  Require(pattern == name || NameLess(pattern, name) || NameLess(name, pattern));
  const bool trimmed = pattern.empty() || pattern.back() == L'.' || pattern.back() == L' ';
  constexpr size_t kLongest = 12;  // of what every way is tried for
  if (trimmed || pattern == L"*.*" || pattern.size() > kLongest || name.size() > kLongest) return;
  Require(matches == PlainMatcher(pattern, name).Matches());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  const std::wstring text(bytes, bytes + count);
  const size_t end = std::min(text.find(L'\n'), text.size());
  const std::wstring pattern = text.substr(0, end);
  std::wstring name = text.substr(std::min(end + 1, text.size()));
  for (wchar_t& c : name)
    if (IsForbidden(c)) c += kStandInBase;  // as a search shows it
  Check(pattern, name);
  Check(pattern + L".. ", name);
  return 0;
}
