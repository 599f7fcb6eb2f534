/// @file
/// Log texts are narrow: UTF-8 on Linux, the system's code page on Windows, and the status report's labels are code
/// page 932 on both. Whatever it is becomes valid UTF-8 here.
#pragma once
#include <string>
#include <string_view>

namespace qellog {

/// Each character is taken as UTF-8 where it is valid, else as code page 932; a byte that is neither becomes "\x8b".
std::string DecodeText(std::string_view bytes);

}  // namespace qellog
