/// @file
/// Sections of the status report. Each is guarded on its own, checks the heap at both ends and returns the number of
/// characters that it has written.
#pragma once
#include <cstdio>

namespace qel::report {

int WriteSystemVersion(std::FILE* stream);
int WriteSystemInformation(std::FILE* stream);
int WriteGlobalMemory(std::FILE* stream);
int WriteDiskFreeSpace(std::FILE* stream);

}  // namespace qel::report
