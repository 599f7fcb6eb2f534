// The start of every thread: what catches its faults is made before its first own instruction, so that a thread that
// never calls the library leaves a report of its stack overflow too.
//
// This pthread_create stands before the C library's for a program that is linked with this module and for the libraries
// that it loads. A thread that is started in another way (thrd_create, clone, a host that loads the module late) is
// prepared by its first guard.
#include <dlfcn.h>
#include <pthread.h>

#include <memory>
#include <new>

#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {
namespace {

using Routine = void*(void* argument);
using CreateFunction = int(pthread_t*, const pthread_attr_t*, Routine*, void*);

struct PreparedStart {
  Routine* routine;
  void* argument;
  uint32_t wishedMask;  // a thread inherits the mask of its creator
};

void* StartPrepared(void* memory) {
  PreparedStart start;
  {
    const std::unique_ptr<PreparedStart> owner(static_cast<PreparedStart*>(memory));
    start = *owner;
  }
  t_faultThread.wishedMask = start.wishedMask;
  PrepareFaultThread();
  return start.routine(start.argument);
}

CreateFunction* FindCreate() {
  static auto* const function = reinterpret_cast<CreateFunction*>(dlsym(RTLD_NEXT, "pthread_create"));
  return function;
}

}  // namespace
}  // namespace qel::layer

extern "C" QEL_LAYER int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                        void* argument) noexcept {
  using namespace qel::layer;
  std::unique_ptr<PreparedStart> start(new (std::nothrow) PreparedStart{routine, argument, t_faultThread.wishedMask});
  if (!start) return FindCreate()(thread, attributes, routine, argument);
  const int error = FindCreate()(thread, attributes, &StartPrepared, start.get());
  if (error == 0) static_cast<void>(start.release());
  return error;
}
