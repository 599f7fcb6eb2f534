/// @file
/// Man page and completion, made from the description of the command line that also makes the help texts.
#pragma once
#include <string>

namespace CLI {
class App;
}

namespace qellog {

std::string ManualPage(const CLI::App& app);
std::string BashCompletion(const CLI::App& app);

}  // namespace qellog
