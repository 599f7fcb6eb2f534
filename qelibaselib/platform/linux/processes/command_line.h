/// @file
/// Command lines as Windows programs read them.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace qel::layer {

/// The program ends at a blank or is quoted as a whole. In what follows a quote is given by \" and, within quotes, by
/// ""; backslashes count only before a quote.
std::vector<std::string> SplitCommandLine(std::string_view line);

}  // namespace qel::layer
