// The exception reports that a test has caused.
#pragma once
#include <string>
#include <vector>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

// The reports in the file, each from its banner on; empties the file.
std::vector<std::string> TakeReports();
// Whether the report has its last section.
bool IsWhole(const std::string& report);

// A filter of a host that writes a report and lets the search go on.
LONG WINAPI WriteReport(EXCEPTION_POINTERS* pointers);

// An export that faults: a bad pointer for a result. Returns whether it gave its failure value.
bool FaultInExport();

}  // namespace qel::test
