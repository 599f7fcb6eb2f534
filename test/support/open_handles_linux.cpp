#include <stdexcept>

#include "qelibaselib/platform/win32.h"
#include "test/support/open_handles.h"

namespace qel::test {

unsigned long OpenHandleCount() {
  DWORD count = 0;
  if (!GetProcessHandleCount(GetCurrentProcess(), &count)) throw std::runtime_error("GetProcessHandleCount");
  return count;
}

}  // namespace qel::test
