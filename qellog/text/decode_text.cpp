#include "qellog/text/decode_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "qellog/text/shift_jis_rows.h"
#include "qellog/text/utf8.h"

namespace qellog {
namespace {

/// The row of a first byte; none when the byte is not the first of two.
const std::u16string_view* RowOf(unsigned char lead) {
  if (lead >= 0x81 && lead <= 0x9F) return &kShiftJisRows[lead - 0x81];
  if (lead >= 0xE0 && lead <= 0xFC) return &kShiftJisRows[lead - 0xE0 + 0x1F];
  return nullptr;
}

/// The character of code page 932 that the text begins with; of no bytes when there is none.
Utf8Character FirstShiftJisCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead >= 0xA1 && lead <= 0xDF) return {0xFF61u + lead - 0xA1u, 1};  // half-width Katakana
  const std::u16string_view* const row = RowOf(lead);
  if (!row || text.size() < 2) return {0, 0};
  const auto trail = static_cast<unsigned char>(text[1]);
  if (trail < 0x40 || trail == 0x7F) return {0, 0};
  const std::size_t column = trail - 0x40u - (trail > 0x7F ? 1u : 0u);
  if (column >= row->size() || (*row)[column] == u' ') return {0, 0};
  return {(*row)[column], 2};
}

bool IsAscii(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

}  // namespace

std::string DecodeText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto ascii = static_cast<std::size_t>(std::find_if_not(bytes.begin(), bytes.end(), IsAscii) - bytes.begin());
    text.append(bytes, 0, ascii);
    bytes.remove_prefix(ascii);
    if (bytes.empty()) break;
    Utf8Character character = FirstCharacter(bytes);
    if (character.bytes == 0) character = FirstShiftJisCharacter(bytes);
    if (character.bytes == 0) {
      std::array<char, 8> escape;
      std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(bytes[0]));
      text += escape.data();
      bytes.remove_prefix(1);
      continue;
    }
    AppendCharacter(text, character.codePoint);
    bytes.remove_prefix(character.bytes);
  }
  return text;
}

}  // namespace qellog
