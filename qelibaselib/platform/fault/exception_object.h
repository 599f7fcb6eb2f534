/// @file
/// The exceptions that faults become, made by hand: `throw` would end the process where nobody catches, and does not
/// tell when the object is made and the exception in flight.
#pragma once
#include <unwind.h>

#include "qelibaselib/platform/fault/fault.h"

namespace fault {

/// The first words of what the C++ runtime keeps for each thread, fixed by the C++ ABI.
struct ThreadExceptions {
  void* caught;
  unsigned int uncaught;
};
ThreadExceptions* CurrentExceptions();

/// An exception of the type that the thread's clauses take for `pointers`: a CSE where `asCse`, otherwise one of a
/// private type. Its memory comes from the C++ runtime.
_Unwind_Exception* MakeException(const EXCEPTION_POINTERS& pointers, bool asCse);

/// Throws it. Returns when nobody up the stack catches; nothing has changed then, and the exception is deleted.
void ThrowObject(_Unwind_Exception* exception);

}  // namespace fault
