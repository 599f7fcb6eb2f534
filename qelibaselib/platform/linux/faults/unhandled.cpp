// Faults that no guard takes: to the filter of SetUnhandledExceptionFilter, then to whoever had the signal before.
#include <unistd.h>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/win32/errhandlingapi.h"

namespace qel::layer {
namespace {

constinit LPTOP_LEVEL_EXCEPTION_FILTER g_filter = nullptr;

struct FilterQuestion {
  int signal;
  const siginfo_t& info;
  ucontext_t& machine;
  const fault::GuardFrame* lost;  // the guard that has the fault's record already; null when there is none
  LONG answer;
};

void AskFilter(void* argument) {
  auto& question = *static_cast<FilterQuestion*>(argument);
  EXCEPTION_RECORD record;
  CONTEXT context;
  if (question.lost) {
    record = question.lost->record;
    context = question.lost->context;
  } else {
    FillFault(record, context, question.signal, question.info, question.machine);
    if (IsStackOverflow(t_faultThread, record, context.Esp)) record.ExceptionCode = EXCEPTION_STACK_OVERFLOW;
  }
  EXCEPTION_POINTERS pointers{&record, &context};
  question.answer = CallUnhandledFilter(&pointers);
  if (question.answer == EXCEPTION_CONTINUE_EXECUTION && !question.lost) ApplyContext(question.machine, context);
}

// A filter that faults itself is not asked again.
LONG AskFilterOnce(FilterQuestion question) {
  FaultThread& thread = t_faultThread;
  if (!g_filter || thread.asksFilter) return EXCEPTION_CONTINUE_SEARCH;
  thread.asksFilter = true;
  CallOnSignalStack(&AskFilter, &question);
  thread.asksFilter = false;
  return question.answer;
}

// What is not of a fault (an abort, a breakpoint) leaves nothing that the filter could have handled: only its wish to
// go on keeps such a signal from ending the process.
void Offer(const FilterQuestion& question, siginfo_t* info) {
  const LONG answer = AskFilterOnce(question);
  if (answer == EXCEPTION_EXECUTE_HANDLER && IsFaultSignal(question.signal)) _exit(kExitAfterFilter);
  if (answer == EXCEPTION_CONTINUE_EXECUTION && !question.lost) return;
  PassToHost(question.signal, info, &question.machine);
}

}  // namespace

void OfferToFilter(int signal, siginfo_t* info, ucontext_t& machine) {
  Offer({signal, *info, machine, nullptr, EXCEPTION_CONTINUE_SEARCH}, info);
}

void OfferLostFault(const fault::GuardFrame& guard, int signal, siginfo_t* info, ucontext_t& machine) {
  Offer({signal, *info, machine, &guard, EXCEPTION_CONTINUE_SEARCH}, info);
}

LONG CallUnhandledFilter(EXCEPTION_POINTERS* pointers) {
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = g_filter;
  return filter ? filter(pointers) : EXCEPTION_CONTINUE_SEARCH;
}

bool IsOwnAbort(int signal, const siginfo_t& info) {
  return signal == SIGABRT && info.si_code == SI_TKILL && info.si_pid == getpid();
}

}  // namespace qel::layer

extern "C" LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
  return __atomic_exchange_n(&qel::layer::g_filter, filter, __ATOMIC_SEQ_CST);
}
