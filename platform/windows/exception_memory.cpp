// What the C++ run-time of this target makes at the first exception, made ahead: without memory it would end the
// process then.
#include <cxxabi.h>

#include <exception>

#include "platform/fault/fault.h"

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

// The unwinder's tables.
void UnwindOnce() {
  try {
    throw 0;
  } catch (int) {
  }
}

}  // namespace

void ThreadAttach() {
  [[maybe_unused]] const void* volatile used = abi::__cxa_get_globals();  // made by its first use
  static const bool prepared = [] {
    UnwindOnce();
    MakeLockOfReserve();
    return true;
  }();
  static_cast<void>(prepared);
}

}  // namespace fault
