/// @file
/// What is read of the processors and the system once, at process attach.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel {

void ReadProcessorCount();
void ReadSystemVersionRecord();
/// At least 1.
DWORD ProcessorCount();

}  // namespace qel
