/// @file
/// Symbol names as a reader wants them.
#pragma once
#include <cstddef>

namespace qel::layer {

/// The readable name of a stored one: a C++ function's qualified name without parameters, result and unnamed
/// namespaces, as debug information has it on Windows; every other name as it is, without version and clone suffix.
/// Cut to `size` characters with the terminator. Allocates only for names of templates, operators and lambdas.
void ReadableName(const char* stored, char* text, std::size_t size);

/// The name part of a full declaration as the demangler prints it, in place. For ReadableName and its test.
void KeepNameOnly(char* declaration);

}  // namespace qel::layer
