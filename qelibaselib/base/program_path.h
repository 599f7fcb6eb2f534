/// @file
/// The path of the running program.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

/// The narrow path as the system tells it now, cut to 259 characters; empty when it tells none.
struct ProgramPath {
  ProgramPath() {
    text[0] = '\0';
    GetModuleFileNameA(nullptr, text, MAX_PATH);
    text[MAX_PATH - 1] = '\0';
  }
  char text[MAX_PATH];
};

}  // namespace qel
