#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace {

using qel::layer::kPageSize;

constexpr bool LiesInOnePage(uintptr_t first, ULONG_PTR size) {
  return size - 1 < kPageSize - (first & (kPageSize - 1));  // false for no bytes: size - 1 wraps
}

// Whether a byte of each page of the range fails the probe. A range that wraps around is bad.
template <class Probe>
[[gnu::noinline]] BOOL IsBadRange(uintptr_t first, ULONG_PTR size, Probe probe) {
  if (size == 0) return FALSE;
  if (!qel::layer::t_faultThread.ready) [[unlikely]]
    qel::layer::PrepareFaultThread();
  const uintptr_t last = first + size - 1;
  if (last < first) return TRUE;
  for (uintptr_t address = first;; address = (address | (kPageSize - 1)) + 1) {
    if (probe(address)) return TRUE;
    if ((address ^ last) < kPageSize) return FALSE;
  }
}

template <class Probe>
BOOL IsBad(uintptr_t first, ULONG_PTR size, Probe probe) {
  if (qel::layer::t_faultThread.ready && LiesInOnePage(first, size)) [[likely]]
    return probe(first);
  return IsBadRange(first, size, probe);
}

}  // namespace

extern "C" BOOL IsBadReadPtr(LPCVOID address, ULONG_PTR size) {
  return IsBad(reinterpret_cast<uintptr_t>(address), size,
               [](uintptr_t byte) { return fault_probe_read(reinterpret_cast<const void*>(byte)); });
}

extern "C" BOOL IsBadWritePtr(LPVOID address, ULONG_PTR size) {
  return IsBad(reinterpret_cast<uintptr_t>(address), size,
               [](uintptr_t byte) { return fault_probe_write(reinterpret_cast<void*>(byte)); });
}
