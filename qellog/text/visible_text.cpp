#include "qellog/text/visible_text.h"

#include <algorithm>
#include <cstdio>

#include "qellog/text/decode_text.h"
#include "qellog/text/utf8.h"

namespace qellog {
namespace {

constexpr std::string_view kIndent = "    ";

struct CodePointRange {
  char32_t first, last;
};

constexpr CodePointRange kInvisible[] = {
    {0x00, 0x08},     {0x0A, 0x1F},     {0x7F, 0x9F},       {0xAD, 0xAD},     {0x61C, 0x61C},
    {0x180E, 0x180E}, {0x200B, 0x200F}, {0x2028, 0x202E},   {0x2060, 0x206F}, {0xFEFF, 0xFEFF},
    {0xFFF9, 0xFFFB}, {0xE000, 0xF8FF}, {0xE0000, 0xE0FFF},
};

void AppendEscape(std::string& text, char32_t codePoint) {
  char escape[16];
  const char* const format = codePoint < 0x80 ? "\\x%02x" : "<U+%04X>";
  std::snprintf(escape, sizeof escape, format, static_cast<unsigned>(codePoint));
  text += escape;
}

void AppendLineEnd(std::string& text, LineEnds lineEnds) {
  if (lineEnds == LineEnds::kKept)
    text.append("\n").append(kIndent);
  else
    text += "\\n";
}

bool IsPlain(char byte) { return byte >= ' ' && byte < 0x7F; }

}  // namespace

bool IsInvisible(char32_t codePoint) {
  return std::any_of(std::begin(kInvisible), std::end(kInvisible), [codePoint](const CodePointRange& range) {
    return codePoint >= range.first && codePoint <= range.last;
  });
}

std::string VisibleText(std::string_view bytes, LineEnds lineEnds) {
  std::string text;
  AppendVisible(text, bytes, lineEnds);
  return text;
}

void AppendVisible(std::string& text, std::string_view bytes, LineEnds lineEnds) {
  if (std::all_of(bytes.begin(), bytes.end(), IsPlain)) {
    text.append(bytes);
    return;
  }
  const std::string decoded = DecodeText(bytes);
  for (std::string_view rest = decoded; !rest.empty();) {
    const Utf8Character character = FirstCharacter(rest);
    const bool isReturnOfLineEnd = rest.starts_with("\r\n");
    if (character.codePoint == '\n') {
      AppendLineEnd(text, lineEnds);
    } else if (IsInvisible(character.codePoint) && !isReturnOfLineEnd) {
      AppendEscape(text, character.codePoint);
    } else if (!isReturnOfLineEnd) {
      text.append(rest, 0, character.bytes);
    }
    rest.remove_prefix(character.bytes);
  }
}

}  // namespace qellog
