// What the C++ run-time of this target makes at the first exception, made ahead: without memory it would end the
// process then.
#include <cxxabi.h>
#include <omp.h>

#include <exception>

#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/win32.h"

namespace fault {
namespace {

void** g_landing = nullptr;

// The run-time keeps memory for exceptions that get none of the heap, behind a lock that is made by its first user. So
// this is one: it asks for more than there is, and leaves the end of the process that follows.
__attribute__((noinline)) void MakeLockOfReserve() {
  constexpr size_t kMoreThanThereIs = 0xFFFF0000;
  void* landing[5];
  g_landing = landing;
  const auto terminate = std::set_terminate([] { __builtin_longjmp(g_landing, 1); });
  if (__builtin_setjmp(landing) == 0) abi::__cxa_allocate_exception(kMoreThanThereIs);
  std::set_terminate(terminate);
}

// The unwinder's tables and the thread's list of exceptions.
void UnwindOnce() {
  try {
    throw 0;
  } catch (int) {
  }
}

// Local statics are made behind a lock that the first of them all makes.
void MakeLockOfLocalStatics() {
  static const volatile DWORD first = GetCurrentThreadId();
  static_cast<void>(first);
}

}  // namespace

// Not for each thread: the thread library begins a thread of its own after the module's attach, and what the thread had
// until then is lost.
void ProcessAttach() {
  UnwindOnce();
  MakeLockOfReserve();
  MakeLockOfLocalStatics();
  omp_get_thread_num();  // makes the thread's state, which a report asks for
}

}  // namespace fault
