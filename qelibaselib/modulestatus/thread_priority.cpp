#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/modulestatus/lighter_guard.h"

namespace qel::report {
namespace {

DWORD PriorityClass(int threadPriority) {
  switch (threadPriority) {
    case THREAD_PRIORITY_IDLE:
    case THREAD_PRIORITY_LOWEST:
      return IDLE_PRIORITY_CLASS;
    case THREAD_PRIORITY_BELOW_NORMAL:
      return BELOW_NORMAL_PRIORITY_CLASS;
    case THREAD_PRIORITY_ABOVE_NORMAL:
      return ABOVE_NORMAL_PRIORITY_CLASS;
    case THREAD_PRIORITY_HIGHEST:
      return HIGH_PRIORITY_CLASS;
    case THREAD_PRIORITY_TIME_CRITICAL:
      return REALTIME_PRIORITY_CLASS;
    default:  // the error value included
      return NORMAL_PRIORITY_CLASS;
  }
}

}  // namespace
}  // namespace qel::report

using namespace qel::report;

DWORD VemoThreadPriToProcPri() {
  DWORD priorityClass = NORMAL_PRIORITY_CLASS;
  GuardedReport(QEL_HERE, "VemoThreadPriToProcPri",
                [&] { priorityClass = PriorityClass(GetThreadPriority(GetCurrentThread())); });
  return priorityClass;
}
