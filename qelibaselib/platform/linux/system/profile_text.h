/// @file
/// The text of a profile: sections in brackets, lines of "key=value".
#pragma once
#include <optional>
#include <string_view>

namespace qel::layer {

/// The value without the blanks around it and without one pair of quotes. Names count without case, the first of two
/// equal ones; a line that begins with a semicolon is a comment.
std::optional<std::string_view> ProfileValue(std::string_view text, std::string_view section, std::string_view key);

}  // namespace qel::layer
