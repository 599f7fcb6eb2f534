/// @file
/// The guard of the report functions. It is lighter than the exported functions' guard: it writes one line and no
/// report, since a report that faults must not start another one.
///
///     GuardedReport(QEL_HERE, "ExceptLogOut", [&] { ... });
///
/// Cuts a report into parts that fail alone: what one part had written stays, and the next one follows. A fault in code
/// without unwind tables skips the destructors up to the innermost guard, so what must be given back (a mutex, a file,
/// symbols) is held outside the guard of the part that uses it.
#pragma once
#include <cxxabi.h>

#include "qelibaselib/base/source_position.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/mfc/exception.h"

namespace qel::report {

/// Runs `body`. When it ends by an exception, a line in the module-status error channel names `function`.
template <class Body>
void GuardedReport(SourcePosition position, const char* function, Body&& body) {
  try {
    fault::Run(body);
  } catch (abi::__forced_unwind&) {  // the thread is cancelled
    throw;
  } catch (CException* exception) {
    exception->Delete();
    WriteLineF(channel::kModuleStatusError, position, "%s(catch(CException* e))", function);
  } catch (...) {
    WriteLineF(channel::kModuleStatusError, position, "%s(catch(...))", function);
  }
}

}  // namespace qel::report
