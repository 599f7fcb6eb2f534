/// @file
/// Faults of the processor as C++ exceptions.
///
/// A fault inside fault::Run leaves it as an exception, from the place of the fault, with the destructors of every
/// frame between run: a CSE on a thread whose translator throws one, otherwise one of a private type that only `catch
/// (...)` takes. Where the frames between cannot be unwound (code without unwind tables, a noexcept function, a smashed
/// stack) the exception starts at Run itself and only their destructors are left out. A fault outside any Run goes
/// where it would go without this.
///
/// Code that may fault under a Run is compiled with qel_fault_options and calls the C library through
/// qelibaselib/platform/fault/may_fault.h where it hands on a caller's pointer.
#pragma once
#include <memory>
#include <type_traits>

#include "qelibaselib/platform/win32.h"

#ifdef _WIN32
#define QEL_FAULT_API
#else
#define QEL_FAULT_API QEL_LAYER
#endif

/// A structured exception as a C++ exception: what the translator throws, by value. Holds no pointer into the frame
/// that faulted, except what the record itself says.
struct CSE {
  EXCEPTION_RECORD record;
  CONTEXT context;
};

/// fault::Run without the template.
extern "C" QEL_FAULT_API void fault_run(void (*body)(void* argument), void* argument);

namespace fault {

namespace detail {
// A named function, since a walk over the stack shows it.
template <class Callable>
void CallBody(void* callable) {
  (*static_cast<Callable*>(callable))();
}
}  // namespace detail

/// Called with the exception's code on the faulting thread, after it has left the handler of the fault; expected to
/// throw. If it returns, the exception of the private type is thrown.
using Translator = void (*)(unsigned int code, EXCEPTION_POINTERS* pointers);

/// Sets the calling thread's translator (null: none, as at the thread's start); returns the previous one.
QEL_FAULT_API Translator SetTranslator(Translator translator);

/// The translator that throws a CSE.
QEL_FAULT_API void ThrowCse(unsigned int code, EXCEPTION_POINTERS* pointers);

/// Makes sure that the faults of this process reach us before whatever handler the host has set since; that handler
/// still gets every fault that is not ours.
QEL_FAULT_API void ClaimHandlers();

/// Has the C++ run-time make ahead what the process's first exception takes memory for: the first fault may come when
/// none is left. For the module's entry at process attach.
QEL_FAULT_API void ProcessAttach();

/// CancellationHold without the class.
QEL_FAULT_API int HoldCancellation();
QEL_FAULT_API void RestoreCancellation(int state);

/// While it lives, a cancellation of the calling thread (pthread_cancel) has to wait: for code that holds what others
/// wait for, or that no exception may leave. Nothing on Windows, where threads cannot be cancelled.
class CancellationHold {
 public:
  CancellationHold() : state_(HoldCancellation()) {}
  CancellationHold(const CancellationHold&) = delete;
  CancellationHold& operator=(const CancellationHold&) = delete;
  ~CancellationHold() { RestoreCancellation(state_); }

 private:
  const int state_;
};

/// RunBelow without the template.
QEL_FAULT_API void CallBelow(const CONTEXT* context, void (*body)(void* argument), void* argument);

/// Calls `body()` where it has room and leaves alone what a fault left on the stack: for a clause that has caught its
/// exception and reports. That is below the frames of the fault at `context` (null: none is known), or on a stack of
/// its own, or, if neither can be had, here. What `body` reads of the faulting stack is what the fault left, except the
/// frames below one whose destructors ran on the way. `context` must be readable. Exceptions pass; the last error
/// stays; any thread. Where it takes a stack of its own, that costs some ten microseconds.
template <class Body>
inline void RunBelow(const CONTEXT* context, Body&& body) {
  const void* argument = std::addressof(body);
  CallBelow(context, &detail::CallBody<std::remove_reference_t<Body>>, const_cast<void*>(argument));
}

/// Calls `body()`. What leaves it leaves this too. Costs about 10 ns; nests; the last error stays; any thread.
template <class Body>
inline void Run(Body&& body) {
  const void* argument = std::addressof(body);
  fault_run(&detail::CallBody<std::remove_reference_t<Body>>, const_cast<void*>(argument));
}

}  // namespace fault
