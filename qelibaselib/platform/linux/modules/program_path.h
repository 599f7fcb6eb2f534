/// @file
/// Where the program's file was when it was started.
#pragma once

namespace qel::layer {

/// The path, read when the layer is loaded: a program that is replaced later has none any more. Empty when it could not
/// be read.
const char* ProgramPath();

}  // namespace qel::layer
