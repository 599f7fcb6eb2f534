#include "qelibaselib/platform/linux/files/name_pattern.h"

#include <algorithm>
#include <bitset>
#include <cwctype>

#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {
namespace {

// What the file system matches; a search's own wildcards become these.
constexpr wchar_t kAny = L'*';           // any characters
constexpr wchar_t kAnyToLastDot = L'<';  // any characters, but not beyond the last dot
constexpr wchar_t kOneOrNone = L'>';     // one character, none before a dot or at the end
constexpr wchar_t kDotOrEnd = L'"';      // a dot, nothing at the end
constexpr wchar_t kOne = L'?';           // one character

// Upper case without the locale of the thread for what is by far the most frequent.
wchar_t UpperCase(wchar_t c) {
  if (c < 0x80) return c >= L'a' && c <= L'z' ? c - L'a' + L'A' : c;
  return static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
}

// Characters beyond U+FFFF are surrogates in UTF-16 and sort before U+E000.
wchar_t SortKey(wchar_t c) {
  c = UpperCase(c);
  return c > 0xFFFF ? 0xD800 + ((c - 0x10000) >> 10) : c;
}

// A colon is shown as a stand-in only where it is the second character, and a pattern may mean it by either.
wchar_t ToComparable(wchar_t c) { return c == kStandInBase + L':' ? L':' : c; }

}  // namespace

NamePattern::NamePattern(std::wstring_view text) {
  const size_t length = text.find_last_not_of(L". ") + 1;
  // "*." and all that end so, as "*.." and "*. ", ask for names without a dot.
  const bool all = text.substr(0, length) == L"*.*";
  const bool withoutDot = !all && text.substr(length).find(L'.') != text.npos;
  text = all ? L"*" : text.substr(0, length);
  for (size_t i = 0; i < text.size(); ++i) {
    const wchar_t c = text[i], next = i + 1 < text.size() ? text[i + 1] : 0;
    if (c == L'?')
      pattern_ += kOneOrNone;
    else if (c == L'.' && (next == L'?' || next == L'*'))
      pattern_ += kDotOrEnd;
    else if (c == L'*' && next == L'.')
      pattern_ += kAnyToLastDot;
    else
      pattern_ += ToComparable(c);
  }
  if (withoutDot && pattern_.ends_with(kAny)) pattern_.back() = kAnyToLastDot;
}

// Walks the name once with the set of all places in the pattern that fit so far.
bool NamePattern::Matches(std::wstring_view name) const {
  if (MatchesAll()) return true;
  const size_t size = pattern_.size();
  using Places = std::bitset<MAX_PATH + 1>;
  if (size > MAX_PATH) return false;
  const auto skip = [&](Places& places, auto matchesNothing) {
    for (size_t i = 0; i < size; ++i)
      if (places[i] && matchesNothing(pattern_[i])) places.set(i + 1);
  };
  // The dots of "." and ".." separate nothing.
  const bool plain = name == L"." || name == L"..";
  const size_t lastDot = plain ? name.npos : name.rfind(L'.');
  Places places;
  places.set(0);
  for (size_t at = 0; at < name.size(); ++at) {
    const wchar_t c = ToComparable(name[at]);
    skip(places,
         [&](wchar_t p) { return p == kAny || p == kAnyToLastDot || (p == kOneOrNone && c == L'.' && !plain); });
    Places next;
    for (size_t i = 0; i < size; ++i) {
      if (!places[i]) continue;
      const wchar_t p = pattern_[i];
      if (p == kAny || (p == kAnyToLastDot && at != lastDot)) next.set(i);
      if (p == kOne || (p == kOneOrNone && (c != L'.' || plain)) || (p == kDotOrEnd && c == L'.') || p == c)
        next.set(i + 1);
    }
    places = next;
    if (places.none()) return false;
  }
  skip(places, [](wchar_t p) { return p == kAny || p == kAnyToLastDot || p == kOneOrNone || p == kDotOrEnd; });
  return places[size];
}

bool NameLess(std::wstring_view first, std::wstring_view second) {
  const size_t common = std::min(first.size(), second.size());
  for (size_t i = 0; i < common; ++i) {
    if (first[i] == second[i]) continue;
    const wchar_t a = SortKey(first[i]), b = SortKey(second[i]);
    if (a != b) return a < b;
  }
  return first.size() != second.size() ? first.size() < second.size() : first < second;
}

}  // namespace qel::layer
