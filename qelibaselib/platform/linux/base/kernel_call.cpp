#include "qelibaselib/platform/linux/base/kernel_call.h"

#include <sys/auxv.h>

__asm__(
    ".text\n"
    "qel_interrupt_entry:\n\t"
    ".cfi_startproc\n\t"
    "int $0x80\n\t"
    "ret\n\t"
    ".cfi_endproc");
extern "C" void qel_interrupt_entry() __attribute__((visibility("hidden")));

namespace qel::layer {

// For a kernel that maps no such code.
uintptr_t g_kernelEntry = reinterpret_cast<uintptr_t>(&qel_interrupt_entry);

namespace {
__attribute__((constructor)) void FindKernelEntry() {
  if (const unsigned long entry = getauxval(AT_SYSINFO)) g_kernelEntry = entry;
}
}  // namespace

}  // namespace qel::layer
