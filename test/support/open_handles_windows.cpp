// GetProcessHandleCount answers 0 under Wine. The list of all handles of all processes is not asked for: runs that did
// so hundreds of times have hung, with Wine's server gone. So each value that may be a handle is tried.
#include "qelibaselib/platform/win32.h"
#include "test/support/open_handles.h"

namespace qel::test {
namespace {

constexpr ULONG_PTR kHandleStep = 4;
// New handles take the lowest free value, so the open ones lie close together.
constexpr ULONG_PTR kWidestGap = 64 * kHandleStep;

}  // namespace

unsigned long OpenHandleCount() {
  const DWORD error = GetLastError();
  unsigned long count = 0;
  ULONG_PTR last = 0;
  for (ULONG_PTR value = kHandleStep; value - last <= kWidestGap; value += kHandleStep) {
    DWORD flags;
    if (!GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) continue;
    ++count;
    last = value;
  }
  SetLastError(error);
  return count;
}

}  // namespace qel::test
