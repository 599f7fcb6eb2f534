/// @file
/// Reads small system files whole.
#pragma once
#include <string>

namespace qel::layer {

/// What the descriptor gives, at most `limit` bytes. False when reading fails.
bool ReadWhole(int descriptor, size_t limit, std::string* text);
/// The same of a file of the system; empty when it cannot be opened or read.
std::string ReadSystemFile(const char* path);

}  // namespace qel::layer
