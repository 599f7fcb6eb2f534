// Signals of faults: to the innermost guard of the thread, to the filter, or to who had the signal before.
//
// The handler throws nothing. It fills the guard's frame and lets the thread go on in fault_thunk, outside the handler.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/win32/errhandlingapi.h"

using fault::GuardFrame;

namespace qel::layer {

thread_local constinit FaultThread t_faultThread{};

namespace {

constexpr size_t kSignalStackBytes = 128 * 1024;  // a filter writes its report on it
constexpr size_t kSpareStackBytes = 64 * 1024;
constexpr size_t kGuardPageBytes = 4096;
constexpr uintptr_t kThrowerBytes = 16 * 1024;  // what the thrower and the unwinder may need
constexpr uintptr_t kLargestFrame = 64 * 1024;  // how far below ESP an overflow may touch

constinit LPTOP_LEVEL_EXCEPTION_FILTER g_filter = nullptr;

// A handler of the host that passes on what it does not want calls us as the former handler, with what it got itself.
// Only a delivery by the kernel returns to its trampoline: mov $__NR_rt_sigreturn, %eax; int $0x80.
bool IsDelivery(const void* returnAddress) {
  static constexpr unsigned char kTrampoline[] = {0xB8, SYS_rt_sigreturn, 0, 0, 0, 0xCD, 0x80};
  return std::memcmp(returnAddress, kTrampoline, sizeof kTrampoline) == 0;
}

// An access just below (or, in a large frame, a little above) ESP that finds no page: the stack could not grow. Its
// lowest address does not tell, since something else may lie in the way of its growth.
bool IsStackOverflow(const FaultThread& thread, const EXCEPTION_RECORD& record, uintptr_t esp) {
  if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION || esp > thread.stackHigh) return false;
  const uintptr_t address = record.ExceptionInformation[1];
  const bool nearEsp = address + kLargestFrame >= esp && address < esp + kLargestFrame;
  const bool stackEnds = esp < thread.stackLow + kThrowerBytes || fault_probe_write(reinterpret_cast<void*>(esp - 4));
  return nearEsp && stackEnds && esp + kLargestFrame >= thread.stackLow;
}

void OfferToFilter(int signal, siginfo_t* info, ucontext_t& machine) {
  if (g_filter) {
    EXCEPTION_RECORD record;
    CONTEXT context;
    FillFault(record, context, signal, *info, machine);
    if (t_faultThread.stackHigh != 0 && IsStackOverflow(t_faultThread, record, context.Esp)) {
      record.ExceptionCode = EXCEPTION_STACK_OVERFLOW;
    }
    EXCEPTION_POINTERS pointers{&record, &context};
    switch (CallUnhandledFilter(&pointers)) {
      case EXCEPTION_CONTINUE_EXECUTION:
        ApplyContext(machine, context);
        return;
      case EXCEPTION_EXECUTE_HANDLER:
        _exit(kExitAfterFilter);
      default:
        break;
    }
  }
  PassToHost(signal, info, &machine);
}

// Where the thrower runs: below the interrupted frame, or on the spare stack when that is no place to be.
uintptr_t ThrowerStack(const FaultThread& thread, const GuardFrame& guard) {
  const uintptr_t esp = guard.esp;
  const bool usable =
      !(guard.state & fault::kStackOverflow) && esp > thread.stackLow + kThrowerBytes && esp <= thread.stackHigh;
  return usable || !thread.spareTop ? (esp - fault::kRedZoneBytes) & ~(fault::kStackAlignment - 1) : thread.spareTop;
}

void Redirect(GuardFrame& guard, const FaultThread& thread, int signal, const siginfo_t& info, ucontext_t& machine) {
  greg_t* registers = machine.uc_mcontext.gregs;
  if (guard.state & fault::kSearching) {  // the way to the guard is not to be found
    ClearPendingState(machine);
    registers[REG_EBP] = static_cast<greg_t>(guard.frame);
    registers[REG_ESP] = reinterpret_cast<greg_t>(&guard) - static_cast<greg_t>(fault::kRedZoneBytes);
    registers[REG_EIP] = reinterpret_cast<greg_t>(fault_frame_recover);
    return;
  }
  guard.state = (guard.state & fault::kThrown) | fault::kSearching;
  FillFault(guard.record, guard.context, signal, info, machine);
  guard.StartAt(guard.context);
  if (IsStackOverflow(thread, guard.record, guard.esp)) {
    guard.record.ExceptionCode = EXCEPTION_STACK_OVERFLOW;
    guard.state |= fault::kStackOverflow;
  } else if (guard.record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION &&
             guard.record.ExceptionInformation[1] == guard.eip &&
             !fault_probe_read(reinterpret_cast<void*>(guard.esp))) {
    // A call through a bad pointer: the caller is the last frame that there is.
    guard.eip = *reinterpret_cast<uint32_t*>(guard.esp) - 1;
    guard.esp += 4;
  }
  ClearPendingState(machine);
  registers[REG_ESP] = static_cast<greg_t>(ThrowerStack(thread, guard));
  registers[REG_EBP] = reinterpret_cast<greg_t>(&guard);
  registers[REG_EIP] = reinterpret_cast<greg_t>(fault_thunk);
}

// The stacks of a thread, freed by the key's destructor: after every thread_local object and again should one of the
// later destructors have run a guard once more.
constexpr size_t kStacksBytes = kGuardPageBytes + kSignalStackBytes + kSpareStackBytes;
constinit pthread_key_t g_stacksKey = 0;
constinit bool g_haveKey = false;

void FreeStacks(void* memory) {
  stack_t present{};
  if (sigaltstack(nullptr, &present) == 0 && present.ss_sp == memory) {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
  }
  t_faultThread.ready = false;
  t_faultThread.spareTop = 0;
  munmap(memory, kStacksBytes);
}

void MakeStacks(FaultThread& thread) {
  void* memory =
      mmap(nullptr, kStacksBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return;  // a stack overflow will end the process; all else still works
  // A part of the signal stack for the kernel: what overflows it ends the process, and writes over nothing.
  mprotect(memory, kGuardPageBytes, PROT_NONE);
  thread.spareTop = reinterpret_cast<uintptr_t>(memory) + kStacksBytes - 4 * fault::kStackAlignment;
  stack_t present{};
  if (sigaltstack(nullptr, &present) == 0 && (present.ss_flags & SS_DISABLE)) {
    stack_t ours{};
    ours.ss_sp = memory;
    ours.ss_size = kGuardPageBytes + kSignalStackBytes;
    sigaltstack(&ours, nullptr);
  }
  if (g_haveKey) pthread_setspecific(g_stacksKey, memory);
}

void FindStack(FaultThread& thread) {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
  void* low = nullptr;
  size_t bytes = 0;
  pthread_attr_getstack(&attributes, &low, &bytes);
  pthread_attr_destroy(&attributes);
  thread.stackLow = reinterpret_cast<uintptr_t>(low);
  thread.stackHigh = thread.stackLow + bytes;
}

__attribute__((constructor)) void InstallAtLoad() {
  g_haveKey = pthread_key_create(&g_stacksKey, &FreeStacks) == 0;
  ClaimSignals();
}

}  // namespace

void OnFaultSignal(int signal, siginfo_t* info, void* context) {
  ucontext_t& machine = *static_cast<ucontext_t*>(context);
  greg_t& eip = machine.uc_mcontext.gregs[REG_EIP];
  const auto* instruction = reinterpret_cast<const char*>(eip);
  if (instruction == fault_probe_read_instruction || instruction == fault_probe_write_instruction) {
    eip = reinterpret_cast<greg_t>(fault_probe_failed);
    return;
  }
  const int savedErrno = errno;
  FaultThread& thread = t_faultThread;
  if (!IsDelivery(__builtin_return_address(0))) {
    PassToOriginal(signal, info, context);
  } else if (info->si_code <= 0) {  // kill, raise: not of an instruction
    PassToHost(signal, info, context);
  } else if (thread.innermost) {
    Redirect(*thread.innermost, thread, signal, *info, machine);
  } else {
    OfferToFilter(signal, info, machine);
  }
  errno = savedErrno;
}

void PrepareFaultThread() {
  const int savedErrno = errno;
  FaultThread& thread = t_faultThread;
  ClaimSignals();
  UnblockSignals();
  FindStack(thread);
  MakeStacks(thread);
  thread.ready = true;
  errno = savedErrno;
}

LONG CallUnhandledFilter(EXCEPTION_POINTERS* pointers) {
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = g_filter;
  return filter ? filter(pointers) : EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace qel::layer

namespace fault {

Translator ThreadTranslator() { return qel::layer::t_faultThread.translator; }
void SetThreadTranslator(Translator translator) { qel::layer::t_faultThread.translator = translator; }

GuardFrame* InnermostGuard() { return qel::layer::t_faultThread.innermost; }
void PrepareThrow(GuardFrame*) {}

void ProcessAttach() {}  // this run-time has made it all

void ClaimHandlers() { qel::layer::ClaimSignals(); }

uintptr_t StackLimit() {
  const qel::layer::FaultThread& thread = qel::layer::t_faultThread;
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  return thread.ready && here > thread.stackLow && here <= thread.stackHigh ? thread.stackLow : UINTPTR_MAX;
}

}  // namespace fault

extern "C" __attribute__((used)) GuardFrame** fault_enter(GuardFrame* guard) {
  qel::layer::FaultThread& thread = qel::layer::t_faultThread;
  if (!thread.ready) [[unlikely]]
    qel::layer::PrepareFaultThread();
  guard->state = fault::kQuiet;
  guard->outer = thread.innermost;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  thread.innermost = guard;
  return &thread.innermost;
}

extern "C" void fault_leave(GuardFrame* guard) { qel::layer::t_faultThread.innermost = guard->outer; }

extern "C" LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
  return __atomic_exchange_n(&qel::layer::g_filter, filter, __ATOMIC_SEQ_CST);
}
