/// @file
/// The exception guard that every exported body stands in.
///
///     HANDLE CreateThingX(int line, const char* sourceFile, ...) {
///       HANDLE thing = nullptr;                       // the failure value; also what is returned after an exception
///       qel::Guarded(QEL_HERE, [&] {
///         thing = CreateThing(...);
///       });
///       return thing;
///     }
///
/// Nothing leaves it but the cancellation of the thread: a fault of the processor, a framework exception or any other
/// exception ends the body with the destructors run, is written to the assertion channel (the first clause with the
/// given line, the next two with the next two lines), the heap is checked, the floating-point unit reset and an
/// exception report written. The last error is then whatever the logging left. A fault outside any guard reaches the
/// host as if the library were not there.
#pragma once
#include <cxxabi.h>

#include "qelibaselib/base/source_position.h"
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/mfc/exception.h"

namespace qel {
namespace guard_detail {

void ReportStructuredException(const CSE& exception, SourcePosition position) noexcept;
void ReportFrameworkException(CException* exception, SourcePosition position) noexcept;
void ReportOtherException(SourcePosition position) noexcept;

}  // namespace guard_detail

/// Runs `body`; returns whether it ended without an exception. The cancellation of the thread is no exception: it
/// passes.
template <class Body>
inline bool Guarded(SourcePosition position, Body&& body) {
  try {
    fault::Run(body);
    return true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (const CSE& exception) {
    guard_detail::ReportStructuredException(exception, position);
  } catch (CException* exception) {
    guard_detail::ReportFrameworkException(exception, {position.line + 1, position.sourceFile});
  } catch (...) {
    guard_detail::ReportOtherException({position.line + 2, position.sourceFile});
  }
  return false;
}

/// Runs `body` and swallows whatever leaves it, without a word: for the log writer, which must not log its own
/// failures. A framework exception is deleted. A cancellation of the thread waits until `body` has ended, since `body`
/// holds what other processes wait for. Returns whether the body ended without an exception.
template <class Body>
inline bool Swallowed(Body&& body) {
  const fault::CancellationHold hold;
  try {
    fault::Run(body);
    return true;
  } catch (CException* exception) {
    exception->Delete();
  } catch (...) {
    return false;
  }
  return false;
}

}  // namespace qel
