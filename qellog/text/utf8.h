/// @file
/// Characters of UTF-8.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace qellog {

struct Utf8Character {
  char32_t codePoint;
  std::size_t bytes;  ///< 0 when the text does not begin with a valid character
};

/// The first character of a text that is not empty.
Utf8Character FirstCharacter(std::string_view text);
void AppendCharacter(std::string& text, char32_t codePoint);

}  // namespace qellog
