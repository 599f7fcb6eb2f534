// What a fault passes on its way to the guard: handlers of the host, and the allocator.
//
// A fault inside a host's signal handler may end in a guard further out, that of an export which the signal
// interrupted. The handler then never returns, and the signals that were blocked while it ran would stay so. The kernel
// keeps the mask of the interrupted code in the frame that it made for the handler; the outermost such frame has the
// guard's.
#include <pthread.h>
#include <sys/syscall.h>

#include <cstdlib>
#include <cstring>

#include "qelibaselib/platform/linux/faults/fault_internal.h"

namespace qel::layer {
namespace {

// The instructions that a handler returns to: of one with three parameters, and of one with the signal alone.
constexpr unsigned char kReturnOfAction[] = {0xB8, SYS_rt_sigreturn, 0, 0, 0, 0xCD, 0x80};
constexpr unsigned char kReturnOfHandler[] = {0x58, 0xB8, SYS_sigreturn, 0, 0, 0, 0xCD, 0x80};

// What the kernel puts on the stack above the return address.
struct ActionFrame {
  int signal;
  siginfo_t* info;
  ucontext_t* context;
};
struct HandlerFrame {
  int signal;
  struct sigcontext context;
  struct _fpstate floatingPoint;
  unsigned long furtherMask;
};

template <size_t count>
bool IsCode(uintptr_t instruction, const unsigned char (&code)[count]) {
  return std::memcmp(reinterpret_cast<const void*>(instruction), code, count) == 0;
}

void NoteMask(unsigned long first, unsigned long second) {
  FaultThread& thread = t_faultThread;
  const unsigned long words[] = {first, second};
  sigemptyset(&thread.mask);
  std::memcpy(&thread.mask, words, sizeof words);
  thread.maskIsKnown = true;
}

bool IsOfAllocator(uintptr_t function) {
  static const uintptr_t functions[] = {
      reinterpret_cast<uintptr_t>(&std::malloc),   reinterpret_cast<uintptr_t>(&std::free),
      reinterpret_cast<uintptr_t>(&std::calloc),   reinterpret_cast<uintptr_t>(&std::realloc),
      reinterpret_cast<uintptr_t>(&aligned_alloc), reinterpret_cast<uintptr_t>(&posix_memalign)};
  for (const uintptr_t known : functions)
    if (function == known) return true;
  return false;
}

}  // namespace

void RestorePassedMask() {
  t_faultThread.maskIsKnown = false;
  for (const int signal : kFaultSignals) sigdelset(&t_faultThread.mask, signal);
  ChangeKernelMask(SIG_SETMASK, &t_faultThread.mask, nullptr);
}

}  // namespace qel::layer

bool fault::NotePassedFrame(const PassedFrame& frame) {
  using namespace qel::layer;
  if (frame.function != 0 && IsOfAllocator(frame.function)) t_faultThread.faultInAllocator = true;
  if (IsCode(frame.instruction, kReturnOfAction)) {
    const auto* mask =
        reinterpret_cast<const unsigned long*>(&reinterpret_cast<const ActionFrame*>(frame.stack)->context->uc_sigmask);
    NoteMask(mask[0], mask[1]);
    return true;
  }
  if (IsCode(frame.instruction, kReturnOfHandler)) {
    const auto* handler = reinterpret_cast<const HandlerFrame*>(frame.stack);
    NoteMask(handler->context.oldmask, handler->furtherMask);
    return true;
  }
  return false;
}
