#include "test/support/exhaustion_limits.h"

namespace qel::test {

// The run-time of this system opens 512 files at most.
const char* const kAnyFile = "C:\\windows\\system32\\kernel32.dll";

void LimitAddressSpace() {}
void LimitFiles() {}
void LiftLimits() {}

}  // namespace qel::test
