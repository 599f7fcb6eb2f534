/// @file
/// Parts of the texts of log_layout.h.
#pragma once
#include <string_view>

namespace qellog {

/// What stands before the first such character. A loop of its own: the sanitizers' instrumentation keeps
/// std::string_view::find from constant expressions.
constexpr std::string_view TextBefore(std::string_view text, char end) {
  std::size_t length = 0;
  while (length < text.size() && text[length] != end) ++length;
  return text.substr(0, length);
}

}  // namespace qellog
