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
#include <bit>
#include <memory>
#include <type_traits>

#include "qelibaselib/platform/win32.h"

#ifdef _WIN32
#define QEL_FAULT_API
#else
#define QEL_FAULT_API QEL_LAYER __attribute__((noplt))  // one indirect call less for each guard
#endif

/// A structured exception as a C++ exception: what the translator throws, by value. Holds no pointer into the frame
/// that faulted, except what the record itself says.
struct CSE {
  EXCEPTION_RECORD record;
  CONTEXT context;
};

/// fault::Run and fault::Call without the templates. `words` arguments, at least one, as they are passed on the stack,
/// in either way of calling; then `then(result, argument)`, if there is one. The arguments are copied.
extern "C" QEL_FAULT_API void fault_run(const void* function, const unsigned* arguments, unsigned words,
                                        void (*then)(unsigned result, void* argument), void* argument);

namespace fault {

namespace detail {
// Named functions, since a walk over the stack shows them.
template <class Callable>
void Body(void* callable) {
  (*static_cast<Callable*>(callable))();
}
template <class Callable, class Result>
void Then(unsigned result, void* callable) {
  (*static_cast<Callable*>(callable))(std::bit_cast<Result>(result));
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

/// RunBelow without the template.
QEL_FAULT_API void CallBelow(const CONTEXT& context, void (*body)(void* argument), void* argument);

/// Calls `body()` with the stack below that of a fault of this thread, for a clause that caught its exception: what
/// `body` reads of the stack is what the fault left, except the frames below one whose destructors ran on the way.
/// Where there is no room for that, or no fault on this stack below the caller, it just calls `body`. `context` must be
/// readable. Exceptions pass; the last error stays; any thread.
template <class Body>
inline void RunBelow(const CONTEXT& context, Body&& body) {
  const void* argument = std::addressof(body);
  CallBelow(context, &detail::Body<std::remove_reference_t<Body>>, const_cast<void*>(argument));
}

/// Calls `body()`. What leaves it leaves this too. Costs about 10 ns; nests; the last error stays; any thread.
template <class Body>
inline void Run(Body&& body) {
  void (*const call)(void*) = &detail::Body<std::remove_reference_t<Body>>;
  const unsigned argument = reinterpret_cast<unsigned>(std::addressof(body));
  fault_run(reinterpret_cast<const void*>(call), &argument, 1, nullptr, nullptr);
}

/// Calls `then(function(arguments...))`: Run for a call of the system with little around it. No function of ours stands
/// between, which would cost as much as the guard. Each argument and the result take one word; `then` finds the last
/// error as `function` left it.
template <class Then, class Result, class... Parameters>
inline void Call(Then&& then, Result(WINAPI* function)(Parameters...), std::type_identity_t<Parameters>... arguments) {
  const unsigned words[] = {std::bit_cast<unsigned>(arguments)...};
  const void* callable = std::addressof(then);
  fault_run(reinterpret_cast<const void*>(function), words, sizeof...(Parameters),
            &detail::Then<std::remove_reference_t<Then>, Result>, const_cast<void*>(callable));
}

}  // namespace fault
