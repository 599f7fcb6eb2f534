#include <cstdlib>

#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

HGLOBAL GlobalAlloc(UINT flags, SIZE_T size) {
  constexpr SIZE_T kLargestBytes = 0x7FFE0000;
  if ((flags & ~GMEM_ZEROINIT) != GMEM_FIXED) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const SIZE_T bytes = size ? size : 1;  // a block without bytes has an address of its own too
  void* block = nullptr;
  if (bytes <= kLargestBytes) block = flags & GMEM_ZEROINIT ? std::calloc(1, bytes) : std::malloc(bytes);
  if (!block) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return block;
}

HGLOBAL GlobalFree(HGLOBAL block) {
  std::free(block);
  return nullptr;
}

int _heapchk() { return _HEAPOK; }
