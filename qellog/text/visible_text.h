/// @file
/// Texts of logs are not trusted: a message may hold what moves a terminal's cursor, renames its window, or turns the
/// direction of writing so that a line reads as another one. Here such characters become visible.
#pragma once
#include <string>
#include <string_view>

namespace qellog {

enum class LineEnds {
  kKept,     ///< line feeds stay and what follows is indented
  kVisible,  ///< the whole text stays in one line
};

/// Whether a terminal or browser acts on the character instead of showing it: controls, marks of direction, characters
/// without width.
bool IsInvisible(char32_t codePoint);

/// Decodes the bytes (decode_text.h) and shows what would act: "\x1b", "<U+202E>". Tabs stay, and "\r\n" is one line
/// end.
std::string VisibleText(std::string_view bytes, LineEnds lineEnds = LineEnds::kVisible);
/// The same, behind a text. What is plain already is copied and no more.
void AppendVisible(std::string& text, std::string_view bytes, LineEnds lineEnds = LineEnds::kVisible);

}  // namespace qellog
