/// @file
/// UTF-8 to and from the layer's wide text. A byte that is no UTF-8 becomes U+DC00 + byte (U+DC80 to U+DCFF) and goes
/// back to that byte, so that every file name survives a round trip.
#pragma once
#include <cstddef>

namespace qel::layer {

constexpr wchar_t kEscapedByte = 0xDC00;
constexpr size_t kLongestUtf8 = 4;

constexpr bool IsEscapedByte(wchar_t c) { return c >= kEscapedByte + 0x80 && c <= kEscapedByte + 0xFF; }

/// No character at all: beyond Unicode, or half of a surrogate pair that is no escaped byte.
constexpr bool IsUnencodable(wchar_t c) {
  return static_cast<unsigned>(c) > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF && !IsEscapedByte(c));
}

/// Writes one character, which must be encodable, and returns the end of what it wrote.
inline char* EncodeUtf8(wchar_t c, char* out) {
  if (c < 0x80) {
    *out++ = static_cast<char>(c);
  } else if (IsEscapedByte(c)) {
    *out++ = static_cast<char>(c - kEscapedByte);
  } else if (c < 0x800) {
    *out++ = static_cast<char>(0xC0 | c >> 6);
    *out++ = static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    *out++ = static_cast<char>(0xE0 | c >> 12);
    *out++ = static_cast<char>(0x80 | (c >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (c & 0x3F));
  } else {
    *out++ = static_cast<char>(0xF0 | c >> 18);
    *out++ = static_cast<char>(0x80 | (c >> 12 & 0x3F));
    *out++ = static_cast<char>(0x80 | (c >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (c & 0x3F));
  }
  return out;
}

/// Reads one character of [text, end) and moves `text` behind it.
inline wchar_t DecodeUtf8(const char*& text, const char* end) {
  const auto first = static_cast<unsigned char>(*text++);
  if (first < 0x80) return first;
  const int more = first >= 0xF0 && first < 0xF5   ? 3
                   : first >= 0xE0 && first < 0xF0 ? 2
                                                   : first >= 0xC2 && first < 0xE0;
  if (more == 0 || end - text < more) return kEscapedByte + first;
  wchar_t c = first & (0x3F >> more);
  for (int i = 0; i < more; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return kEscapedByte + first;
    c = c << 6 | (next & 0x3F);
  }
  constexpr wchar_t kSmallest[] = {0, 0x80, 0x800, 0x10000};  // anything shorter has a shorter form
  if (c < kSmallest[more] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return kEscapedByte + first;
  text += more;
  return c;
}

}  // namespace qel::layer
