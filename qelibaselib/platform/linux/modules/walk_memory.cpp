#include "qelibaselib/platform/linux/modules/walk_memory.h"

#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

// A walk looks at other functions' frames, the redzones between their variables included: no intrinsic copy, whose
// arguments a sanitizer checks.
__attribute__((no_sanitize_address)) BOOL WINAPI ReadOwnMemory(HANDLE, DWORD address, PVOID bytes, DWORD count,
                                                               PDWORD taken) {
  if (IsBadReadPtr(reinterpret_cast<const void*>(address), count)) return FALSE;
  const auto* from = reinterpret_cast<const volatile BYTE*>(address);
  for (DWORD i = 0; i < count; ++i) static_cast<BYTE*>(bytes)[i] = from[i];
  *taken = count;
  return TRUE;
}

}  // namespace

WalkMemory OwnMemory() { return {nullptr, &ReadOwnMemory}; }

}  // namespace qel::layer
