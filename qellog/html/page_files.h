/// @file
/// The parts of the page, put into the program at build time (cmake/EmbedFiles.cmake).
#pragma once
#include <span>
#include <string_view>

namespace qellog {

/// The frame with places for the rest, "@STYLE@", "@DATA@" and "@SCRIPTS@".
extern const std::string_view kPageFrame;
extern const std::span<const std::string_view> kPageStyles;
extern const std::span<const std::string_view> kPageScripts;

}  // namespace qellog
