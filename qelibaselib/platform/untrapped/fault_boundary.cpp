// Stands in for the faults of linux/faults/ and the symbols of linux/modules/ in the concurrency core
// (cmake/ConcurrencyCore.cmake), which is built for 64 bits too. Those two read and write the frames, the contexts and
// the modules of 32-bit programs and have no other form. Nothing is trapped here: a fault ends the process, a thread
// needs no preparation, and the probes ask the kernel.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"
#include "qelibaselib/platform/linux/modules/symbol_store.h"

namespace qel::layer {

thread_local constinit FaultThread t_faultThread{};
void PrepareFaultThread() { t_faultThread.ready = true; }

const ForkedPart kFaultSignalsAtFork = {[] {}, [](bool) {}};
const ForkedPart kReportDescriptorsAtFork = {[] {}, [](bool) {}};
const ForkedPart kSymbolStoreAtFork = {[] {}, [](bool) {}};

}  // namespace qel::layer

int fault_probe_read(const void* address) {
  char byte;
  const iovec own = {&byte, 1}, probed = {const_cast<void*>(address), 1};
  return process_vm_readv(getpid(), &own, 1, &probed, 1, 0) == 1 ? 0 : -1;
}

// The kernel ors nothing into the word that holds the byte, in one step.
int fault_probe_write(void* address) {
  uint32_t nobodyWaits = 0;
  const uintptr_t word = reinterpret_cast<uintptr_t>(address) & ~uintptr_t{sizeof nobodyWaits - 1};
  const long result =
      syscall(SYS_futex, &nobodyWaits, FUTEX_WAKE_OP_PRIVATE, 0, 0, word, FUTEX_OP(FUTEX_OP_OR, 0, FUTEX_OP_CMP_EQ, 0));
  return result < 0 && errno == EFAULT ? -1 : 0;
}
