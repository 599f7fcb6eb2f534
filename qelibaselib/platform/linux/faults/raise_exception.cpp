// The compiled part of RaiseException; its entry, which has captured the caller's registers, is in fault_entry.S.
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/win32/errhandlingapi.h"

namespace {

int SignalOf(DWORD code) {
  switch (code) {
    case EXCEPTION_ILLEGAL_INSTRUCTION:
      return SIGILL;
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
    case EXCEPTION_INT_OVERFLOW:
      return SIGFPE;
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_STACK_OVERFLOW:
      return SIGSEGV;
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
      return SIGBUS;
    default:
      return code >= EXCEPTION_FLT_DENORMAL_OPERAND && code <= EXCEPTION_FLT_UNDERFLOW ? SIGFPE : SIGABRT;
  }
}

// Nobody wants the exception: as the fault would end the process that it stands for.
[[noreturn]] void EndProcess(DWORD code) {
  const int signal = SignalOf(code);
  qel::layer::t_faultThread.asksFilter = true;  // it has been asked
  raise(signal);                                // to the host's handler, if it has one
  ::signal(signal, SIG_DFL);
  raise(signal);
  _exit(128 + signal);
}

}  // namespace

extern "C" __attribute__((used, visibility("hidden"))) void fault_raise(CONTEXT* context, DWORD code, DWORD flags,
                                                                        DWORD count, const ULONG_PTR* arguments) {
  EXCEPTION_RECORD record{};
  record.ExceptionCode = code;
  record.ExceptionFlags = flags & EXCEPTION_NONCONTINUABLE;
  record.ExceptionAddress = reinterpret_cast<void*>(context->Eip);
  if (arguments) {
    record.NumberParameters = std::min<DWORD>(count, EXCEPTION_MAXIMUM_PARAMETERS);
    std::copy_n(arguments, record.NumberParameters, record.ExceptionInformation);
  }
  if (fault::GuardFrame* guard = fault::InnermostGuard()) fault::ThrowInGuard(*guard, record, *context);

  EXCEPTION_POINTERS pointers{&record, context};
  fault::ThrowIfCaught(&pointers);
  switch (qel::layer::CallUnhandledFilter(&pointers)) {
    case EXCEPTION_CONTINUE_EXECUTION:
      if (!record.ExceptionFlags) return;  // RaiseException returns to its caller
      break;
    case EXCEPTION_EXECUTE_HANDLER:
      _exit(qel::layer::kExitAfterFilter);
    default:
      break;
  }
  EndProcess(code);
}
