// Hand-written walks through a tree that keep what the library promises: each file is held against other programs by
// share locks, and what it costs to keep times and attributes is paid. Whatever fails ends the run.
#pragma once
#include <string>

namespace by_hand {

void CopyTree(const std::string& source, const std::string& target);
void DeleteTree(const std::string& folder);

}  // namespace by_hand
