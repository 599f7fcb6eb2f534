// The debug help of Windows reads all symbols of the process anew for each report: seconds, where a test looks at other
// things. Without its start it gives addresses only. That of the layer stays as it is.
#pragma once
#include "test/support/library.h"

namespace qel::test {

inline auto OwnDebugHelpOnly() {
  return FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE, sizeof(wchar_t) == 2 ? 1'000'000 : 0);
}

}  // namespace qel::test
