// What a thread does around a report.
#include <cerrno>

#include "qelibaselib/platform/linux/base/report_depth.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"

void fault::BeginReport() {
  using namespace qel::layer;
  if (t_reportDepth++ != 0) return;
  const int savedErrno = errno;
  GiveUpReportDescriptors();
  BeginLockWatch();
  errno = savedErrno;
}

void fault::EndReport() {
  using namespace qel::layer;
  if (--t_reportDepth != 0) return;
  const int savedErrno = errno;
  EndLockWatch();
  TakeBackReportDescriptors();
  errno = savedErrno;
}
