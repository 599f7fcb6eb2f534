// From a signal's machine state to the exception record and context that Windows would deliver, and back.
#include <cxxabi.h>

#include <cstring>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/modules/frame_walk.h"

namespace qel::layer {
namespace {

// What the kernel saves of the floating-point units: an FSAVE image, then, where the processor has it, an FXSAVE image.
struct FxImage {
  uint16_t control, status;
  uint8_t tag, reserved;
  uint16_t opcode;
  uint32_t instructionOffset, instructionSelector, dataOffset, dataSelector;
  uint32_t mxcsr, mxcsrMask;
  uint8_t registers[480];
};
struct SavedFloatingPoint {
  uint32_t control, status, tag, errorOffset, errorSelector, dataOffset, dataSelector;
  uint8_t registers[80];
  uint16_t statusAgain, magic;  // magic 0: the FXSAVE image follows
  FxImage fx;
  bool HasFx() const { return magic == 0; }
};
static_assert(offsetof(SavedFloatingPoint, fx) == 112 && offsetof(FxImage, mxcsr) == 24 && sizeof(FxImage) == 512);

constexpr uint32_t kFlagMask = 0x3F;  // the six exception flags; the masks of the control word match them
constexpr unsigned int kMxcsrMaskShift = 7;
constexpr uint32_t kX87StackFault = 0x40;
constexpr uint32_t kX87Pending = 0xB8FF;  // exception flags, summary, stack top, busy
constexpr uint32_t kX87AllEmpty = 0xFFFFFFFF;
constexpr greg_t kTrapFlag = 0x100, kDirectionFlag = 0x400, kAlignmentFlag = 0x40000;

// The processor's numbers of the faults and traps that Linux has one signal for.
enum Trap : greg_t {
  kTrapSingleStep = 1,
  kTrapBreakpoint = 3,
  kTrapOverflow = 4,
  kTrapBounds = 5,
  kTrapPageFault = 14,
  kTrapX87 = 16,
  kTrapAlignment = 17,
  kTrapSse = 19
};
constexpr greg_t kErrorWrite = 2, kErrorFetch = 16;
constexpr ULONG_PTR kReading = 0, kWriting = 1, kExecuting = 8;
constexpr ULONG_PTR kNoAddress = 0xFFFFFFFF;  // a general protection fault names none
constexpr DWORD kInvalidSystemService = 0xC000001C;
constexpr DWORD kPossibleDeadlock = 0xC0000194;
constexpr DWORD kFailFast = 0xC0000409;             // what abort() raises on Windows
constexpr ULONG_PTR kStatusEndOfFile = 0xC0000011;  // why a page of a mapped file is not there

SavedFloatingPoint* FloatingPoint(const ucontext_t& machine) {
  return reinterpret_cast<SavedFloatingPoint*>(machine.uc_mcontext.fpregs);
}

// A breakpoint is one byte; the processor goes on behind it, and Windows names the breakpoint itself.
uintptr_t InterruptedInstruction(const ucontext_t& machine) {
  const greg_t* registers = machine.uc_mcontext.gregs;
  return static_cast<uintptr_t>(registers[REG_EIP]) - (registers[REG_TRAPNO] == kTrapBreakpoint ? 1 : 0);
}

// The processor's own order of the exceptions when several are raised at once.
DWORD FloatingPointCode(uint32_t flags) {
  if (flags & 1) return EXCEPTION_FLT_INVALID_OPERATION;
  if (flags & 4) return EXCEPTION_FLT_DIVIDE_BY_ZERO;
  if (flags & 2) return EXCEPTION_FLT_DENORMAL_OPERAND;
  if (flags & 8) return EXCEPTION_FLT_OVERFLOW;
  if (flags & 16) return EXCEPTION_FLT_UNDERFLOW;
  if (flags & 32) return EXCEPTION_FLT_INEXACT_RESULT;
  return EXCEPTION_FLT_INVALID_OPERATION;
}

// Not by si_code: it does not tell a denormal operand from an underflow.
DWORD ArithmeticCode(const siginfo_t& info, const ucontext_t& machine) {
  const SavedFloatingPoint* saved = FloatingPoint(machine);
  const greg_t trap = machine.uc_mcontext.gregs[REG_TRAPNO];
  if (saved && trap == kTrapX87) {
    if (saved->status & kX87StackFault) return EXCEPTION_FLT_STACK_CHECK;
    return FloatingPointCode(saved->status & ~saved->control & kFlagMask);
  }
  if (saved && trap == kTrapSse && saved->HasFx())
    return FloatingPointCode(saved->fx.mxcsr & ~(saved->fx.mxcsr >> kMxcsrMaskShift) & kFlagMask);
  return info.si_code == FPE_INTOVF ? EXCEPTION_INT_OVERFLOW : EXCEPTION_INT_DIVIDE_BY_ZERO;
}

void FillAccessViolation(EXCEPTION_RECORD& record, const siginfo_t& info, const ucontext_t& machine) {
  const greg_t* registers = machine.uc_mcontext.gregs;
  const greg_t error = registers[REG_ERR];
  const ULONG_PTR access = error & kErrorFetch ? kExecuting : error & kErrorWrite ? kWriting : kReading;
  const bool pageFault = registers[REG_TRAPNO] == kTrapPageFault;
  record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
  record.NumberParameters = 2;
  record.ExceptionInformation[0] = pageFault ? access : kReading;
  record.ExceptionInformation[1] = pageFault ? reinterpret_cast<ULONG_PTR>(info.si_addr) : kNoAddress;
}

// INTO and BOUND arrive as SIGSEGV; so does an access that the alignment check refuses, with some kernels.
void FillSegmentation(EXCEPTION_RECORD& record, const siginfo_t& info, const ucontext_t& machine) {
  switch (machine.uc_mcontext.gregs[REG_TRAPNO]) {
    case kTrapOverflow:
      record.ExceptionCode = EXCEPTION_INT_OVERFLOW;
      break;
    case kTrapBounds:
      record.ExceptionCode = EXCEPTION_ARRAY_BOUNDS_EXCEEDED;
      break;
    case kTrapAlignment:
      record.ExceptionCode = EXCEPTION_DATATYPE_MISALIGNMENT;
      break;
    default:
      FillAccessViolation(record, info, machine);
  }
}

void FillBusError(EXCEPTION_RECORD& record, const siginfo_t& info, const ucontext_t& machine) {
  if (info.si_code == BUS_ADRALN) {
    record.ExceptionCode = EXCEPTION_DATATYPE_MISALIGNMENT;
    return;
  }
  FillAccessViolation(record, info, machine);
  record.ExceptionCode = EXCEPTION_IN_PAGE_ERROR;
  record.NumberParameters = 3;
  record.ExceptionInformation[1] = reinterpret_cast<ULONG_PTR>(info.si_addr);
  record.ExceptionInformation[2] = kStatusEndOfFile;
}

void FillArithmetic(EXCEPTION_RECORD& record, const siginfo_t& info, const ucontext_t& machine) {
  record.ExceptionCode = ArithmeticCode(info, machine);
  // The x87 unit traps at its next instruction; the one that did it is named.
  const SavedFloatingPoint* saved = FloatingPoint(machine);
  if (saved && machine.uc_mcontext.gregs[REG_TRAPNO] == kTrapX87)
    record.ExceptionAddress = reinterpret_cast<void*>(saved->errorOffset);
}

// What abort() is called for: a C++ exception that nobody catches, or anything else that the program has noticed
// itself.
void FillAbort(EXCEPTION_RECORD& record) {
  constexpr ULONG_PTR kFatalExit = 7;
  const bool uncaught = abi::__cxa_current_exception_type() != nullptr;
  record.ExceptionCode = uncaught ? fault::kForeignCppException : kFailFast;
  record.ExceptionFlags = EXCEPTION_NONCONTINUABLE;
  if (uncaught) return;
  record.NumberParameters = 1;
  record.ExceptionInformation[0] = kFatalExit;
}

void FillTrap(EXCEPTION_RECORD& record, const ucontext_t& machine) {
  record.ExceptionAddress = reinterpret_cast<void*>(InterruptedInstruction(machine));
  record.ExceptionCode =
      machine.uc_mcontext.gregs[REG_TRAPNO] == kTrapSingleStep ? EXCEPTION_SINGLE_STEP : EXCEPTION_BREAKPOINT;
}

void FillRecord(EXCEPTION_RECORD& record, int signal, const siginfo_t& info, const ucontext_t& machine) {
  record = {};
  record.ExceptionAddress = reinterpret_cast<void*>(machine.uc_mcontext.gregs[REG_EIP]);
  if (info.si_code == SI_TIMER) {  // of the lock watch
    record.ExceptionCode = kPossibleDeadlock;
    return;
  }
  switch (signal) {
    case SIGSEGV:
      return FillSegmentation(record, info, machine);
    case SIGBUS:
      return FillBusError(record, info, machine);
    case SIGILL:
      record.ExceptionCode = EXCEPTION_ILLEGAL_INSTRUCTION;
      return;
    case SIGTRAP:
      return FillTrap(record, machine);
    case SIGSYS:
      record.ExceptionCode = kInvalidSystemService;
      return;
    case SIGABRT:
      return FillAbort(record);
    default:
      return FillArithmetic(record, info, machine);
  }
}

void FillContext(CONTEXT& context, const ucontext_t& machine) {
  const greg_t* registers = machine.uc_mcontext.gregs;
  const auto value = [registers](int which) { return static_cast<DWORD>(registers[which]); };
  const auto segment = [registers](int which) { return static_cast<DWORD>(registers[which]) & 0xFFFF; };
  context = {};
  context.ContextFlags = CONTEXT_FULL;
  context.SegGs = segment(REG_GS);
  context.SegFs = segment(REG_FS);
  context.SegEs = segment(REG_ES);
  context.SegDs = segment(REG_DS);
  context.SegCs = segment(REG_CS);
  context.SegSs = segment(REG_SS);
  context.Edi = value(REG_EDI);
  context.Esi = value(REG_ESI);
  context.Ebx = value(REG_EBX);
  context.Edx = value(REG_EDX);
  context.Ecx = value(REG_ECX);
  context.Eax = value(REG_EAX);
  context.Ebp = value(REG_EBP);
  context.Eip = value(REG_EIP);
  context.Esp = value(REG_ESP);
  context.EFlags = value(REG_EFL);
  if (const SavedFloatingPoint* saved = FloatingPoint(machine)) {
    context.ContextFlags |= CONTEXT_FLOATING_POINT;
    std::memcpy(&context.FloatSave, saved, offsetof(FLOATING_SAVE_AREA, Cr0NpxState));
    if (saved->HasFx()) {
      context.ContextFlags |= CONTEXT_EXTENDED_REGISTERS;
      std::memcpy(context.ExtendedRegisters, &saved->fx, sizeof saved->fx);
    }
  }
}

}  // namespace

void FillFault(EXCEPTION_RECORD& record, CONTEXT& context, int signal, const siginfo_t& info,
               const ucontext_t& machine) {
  FillRecord(record, signal, info, machine);
  FillContext(context, machine);
  RememberFault(context);
  if (signal == SIGTRAP) context.Eip = InterruptedInstruction(machine);
}

bool IsPastInstruction(int signal, const ucontext_t& machine) {
  return signal == SIGTRAP || signal == SIGSYS || machine.uc_mcontext.gregs[REG_TRAPNO] == kTrapOverflow;
}

// An access near ESP that finds no page: the stack could not grow. Its lowest address does not tell, since something
// else may lie in the way of its growth.
bool IsStackOverflow(const FaultThread& thread, const EXCEPTION_RECORD& record, uintptr_t esp) {
  constexpr uintptr_t kLargestFrame = 64 * 1024;  // how far from ESP an overflow may touch
  constexpr uintptr_t kLastBytes = 16 * 1024;
  if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION) return false;
  const uintptr_t address = record.ExceptionInformation[1];
  if (address + kLargestFrame < esp || address >= esp + kLargestFrame) return false;
  const StackBounds& stack = thread.stack;
  const bool known = esp + kLargestFrame >= stack.low && esp <= stack.high;
  if (known && address >= stack.low && address < stack.high) return false;
  return (known && address < stack.low && esp < stack.low + kLastBytes) ||
         fault_probe_write(reinterpret_cast<void*>(esp - sizeof(uint32_t)));
}

void ApplyContext(ucontext_t& machine, const CONTEXT& context) {
  greg_t* registers = machine.uc_mcontext.gregs;
  const auto put = [registers](int which, DWORD value) { registers[which] = static_cast<greg_t>(value); };
  put(REG_EDI, context.Edi);
  put(REG_ESI, context.Esi);
  put(REG_EBX, context.Ebx);
  put(REG_EDX, context.Edx);
  put(REG_ECX, context.Ecx);
  put(REG_EAX, context.Eax);
  put(REG_EBP, context.Ebp);
  put(REG_EIP, context.Eip);
  put(REG_ESP, context.Esp);
  put(REG_EFL, context.EFlags);
}

void ClearPendingState(ucontext_t& machine) {
  machine.uc_mcontext.gregs[REG_EFL] &= ~(kTrapFlag | kDirectionFlag | kAlignmentFlag);
  SavedFloatingPoint* saved = FloatingPoint(machine);
  if (!saved) return;
  saved->status &= ~kX87Pending;
  saved->tag = kX87AllEmpty;
  saved->statusAgain &= static_cast<uint16_t>(~kX87Pending);
  if (!saved->HasFx()) return;
  saved->fx.status &= static_cast<uint16_t>(~kX87Pending);
  saved->fx.tag = 0;  // this image counts the other way round
  saved->fx.mxcsr &= ~kFlagMask;
}

}  // namespace qel::layer
