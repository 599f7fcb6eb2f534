// The stacks that a thread needs besides its own.
//
// - The signal stack: a stack overflow can only be handled on another stack. The kernel switches to it. A host may have
//   given its threads signal stacks of its own, perhaps of a few kilobytes; these stay in place, and what needs more
//   room moves from there to ours.
// - The spare stack: where an exception is thrown when the thread's own stack has no room for that.
// - A stack of its own for a report, made when it is needed.
//
// A thread gets the first two when it starts (thread_start.cpp) or, where that is not seen, with its first guard.
#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"

extern "C" {
/// Calls `body` on the stack that ends at `top`, a multiple of 16. Exceptions pass.
__attribute__((visibility("hidden"))) void fault_call_on_stack(uintptr_t top, void (*body)(void* argument),
                                                               void* argument);
}

namespace qel::layer {

thread_local constinit FaultThread t_faultThread{};

namespace {

constexpr size_t kSignalStackBytes = 128 * 1024;  // the filter of a host runs on it
constexpr size_t kSpareStackBytes = 64 * 1024;
constexpr size_t kReportStackBytes = 512 * 1024;
constexpr size_t kReportSignalStackBytes = 64 * 1024;
constexpr uintptr_t kTopBytes = 4 * fault::kStackAlignment;  // kept free above the first frame

// From low to high: a page without access, the signal stack, the spare stack. What overflows the signal stack ends the
// process, and writes over nothing.
constexpr size_t kStacksBytes = kPageSize + kSignalStackBytes + kSpareStackBytes;

void* MapStack(size_t bytes) {
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  mprotect(memory, kPageSize, PROT_NONE);
  return memory;
}

StackBounds BoundsOf(void* memory, size_t bytes) {
  const auto low = reinterpret_cast<uintptr_t>(memory) + kPageSize;
  return {low, low + bytes};
}

stack_t SignalStackOf(void* stacks) {
  stack_t stack{};
  stack.ss_sp = stacks;
  stack.ss_size = kPageSize + kSignalStackBytes;  // the kernel notices the page without access as an overflow
  return stack;
}

// The key's destructor, which runs after those of every thread_local object, and again should one of the later
// destructors have run a guard once more.
void FreeStacks(void* memory) {
  stack_t present{};
  if (sigaltstack(nullptr, &present) == 0 && present.ss_sp == memory) {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
  }
  t_faultThread.ready = false;
  t_faultThread.stacks = nullptr;
  munmap(memory, kStacksBytes);
}

class StacksKey {
 public:
  StacksKey() : made_(pthread_key_create(&key_, &FreeStacks) == 0) {}
  void Set(void* memory) const {
    if (made_) pthread_setspecific(key_, memory);
  }

 private:
  pthread_key_t key_ = 0;
  const bool made_;
};

// Without memory for them a stack overflow ends the process; all else still works.
void MakeStacks(FaultThread& thread) {
  static const StacksKey key;
  thread.stacks = MapStack(kStacksBytes);
  if (!thread.stacks) return;
  stack_t present{};
  if (sigaltstack(nullptr, &present) == 0 && (present.ss_flags & SS_DISABLE)) {
    const stack_t ours = SignalStackOf(thread.stacks);
    sigaltstack(&ours, nullptr);
  }
  key.Set(thread.stacks);
}

void FindStack(FaultThread& thread) {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
  void* low = nullptr;
  size_t bytes = 0;
  pthread_attr_getstack(&attributes, &low, &bytes);
  pthread_attr_destroy(&attributes);
  thread.stack.low = reinterpret_cast<uintptr_t>(low);
  thread.stack.high = thread.stack.low + bytes;
}

// The thread that loads the layer. Its stack is measured with its first guard, since that takes long for a main thread.
__attribute__((constructor)) void PrepareLoadingThread() {
  ClaimSignals();
  MakeStacks(t_faultThread);
}

// The kernel takes the thread to be on its signal stack as long as the stack pointer is there. Whoever leaves that
// stack inside a handler and faults again would have the second signal begin at its top, over the frames of the first.
// So whoever changes to another stack changes the signal stack too, and does so there: the kernel refuses to change the
// one that is in use.
class ScopedSignalStack {
 public:
  explicit ScopedSignalStack(const stack_t& stack) { changed_ = sigaltstack(&stack, &former_) == 0; }
  ScopedSignalStack(const ScopedSignalStack&) = delete;
  ScopedSignalStack& operator=(const ScopedSignalStack&) = delete;
  ~ScopedSignalStack() {
    if (changed_) sigaltstack(&former_, nullptr);
  }

 private:
  stack_t former_{};
  bool changed_;
};

struct SwitchedCall {
  void (*body)(void* argument);
  void* argument;
  stack_t signalStack;
};

// The return from the handler brings the host's signal stack back.
void RunOnSignalStack(void* argument) {
  const auto& call = *static_cast<SwitchedCall*>(argument);
  sigaltstack(&call.signalStack, nullptr);
  call.body(call.argument);
}

void RunOnReportStack(void* argument) {
  const auto& call = *static_cast<SwitchedCall*>(argument);
  const ScopedSignalStack scope(call.signalStack);
  call.body(call.argument);
}

}  // namespace

// The sanitizer knows one stack for each thread, and takes what is thrown on another for an error.
uintptr_t SpareStackTop([[maybe_unused]] const FaultThread& thread) {
#ifdef __SANITIZE_ADDRESS__
  return 0;
#else
  return thread.stacks ? reinterpret_cast<uintptr_t>(thread.stacks) + kStacksBytes - kTopBytes : 0;
#endif
}

void PrepareFaultThread() {
  const int savedErrno = errno;
  FaultThread& thread = t_faultThread;
  ClaimSignals();
  UnblockSignals();
  FindStack(thread);
  if (!thread.stacks) MakeStacks(thread);
  KeepReportDescriptors();
  thread.ready = true;
  errno = savedErrno;
}

void CallOnSignalStack(void (*body)(void*), void* argument) {
  void* const stacks = t_faultThread.stacks;
  if (!stacks) return body(argument);
  const StackBounds bounds = BoundsOf(stacks, kSignalStackBytes);
  const OnStack on(bounds);
  if (bounds.Contains(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)))) return body(argument);
  SwitchedCall call{body, argument, SignalStackOf(stacks)};
  fault_call_on_stack(bounds.high - kTopBytes, &RunOnSignalStack, &call);
}

}  // namespace qel::layer

bool fault::CallOnOwnStack(void (*body)(void*), void* argument) {
  using namespace qel::layer;
  // From low to high: a signal stack (see ScopedSignalStack) with its page without access, the report's with its own.
  constexpr size_t kSignalBytes = kPageSize + kReportSignalStackBytes;
  constexpr size_t kBytes = kSignalBytes + kPageSize + kReportStackBytes;
  struct Memory {
    char* const begin = static_cast<char*>(MapStack(kBytes));
    ~Memory() {
      if (begin) munmap(begin, kBytes);
    }
  } const memory;
  if (!memory.begin) return false;
  mprotect(memory.begin + kSignalBytes, kPageSize, PROT_NONE);
  const StackBounds bounds = BoundsOf(memory.begin + kSignalBytes, kReportStackBytes);
  const OnStack on(bounds);
  SwitchedCall call{body, argument, {}};
  call.signalStack.ss_sp = memory.begin;
  call.signalStack.ss_size = kSignalBytes;
  fault_call_on_stack(bounds.high - kTopBytes, &RunOnReportStack, &call);
  return true;
}

uintptr_t fault::StackLimit() {
  const qel::layer::FaultThread& thread = qel::layer::t_faultThread;
  return thread.stack.Contains(reinterpret_cast<uintptr_t>(__builtin_frame_address(0))) ? thread.stack.low
                                                                                        : UINTPTR_MAX;
}
