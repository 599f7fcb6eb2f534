#include "qellog/text/utf8.h"

namespace qellog {
namespace {

constexpr Utf8Character kInvalid{0, 0};

bool IsContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

/// How many bytes a character takes that begins with this one; 0 for a byte that begins none.
std::size_t LengthBy(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

/// Without the longer forms that a shorter one could replace, surrogates, and what lies beyond Unicode.
bool IsAllowed(char32_t codePoint, std::size_t length) {
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = codePoint >= 0xD800 && codePoint < 0xE000;
  return codePoint >= kSmallest[length] && codePoint <= 0x10FFFF && !isSurrogate;
}

}  // namespace

Utf8Character FirstCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = LengthBy(first);
  if (length == 1) return {first, 1};
  if (length == 0 || text.size() < length) return kInvalid;
  char32_t codePoint = first & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) return kInvalid;
    codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[i]) & 0x3Fu);
  }
  return IsAllowed(codePoint, length) ? Utf8Character{codePoint, length} : kInvalid;
}

void AppendCharacter(std::string& text, char32_t codePoint) {
  const auto append = [&text](char32_t bits) { text += static_cast<char>(bits); };
  if (codePoint < 0x80) return append(codePoint);
  if (codePoint < 0x800) {
    append(0xC0 | (codePoint >> 6));
  } else {
    if (codePoint < 0x10000) {
      append(0xE0 | (codePoint >> 12));
    } else {
      append(0xF0 | (codePoint >> 18));
      append(0x80 | ((codePoint >> 12) & 0x3F));
    }
    append(0x80 | ((codePoint >> 6) & 0x3F));
  }
  append(0x80 | (codePoint & 0x3F));
}

}  // namespace qellog
