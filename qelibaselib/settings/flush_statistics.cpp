#include "qelibaselib/settings/flush_statistics.h"

#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/settings/thread_record.h"

static_assert(sizeof(T_FVOF_INFORMATION) == 32, "hosts read it in place");

void VemoClearFVOFInf() {
  qel::Guarded(QEL_HERE, [] {
    if (qel::ThreadRecord* record = qel::GetThreadRecord()) record->flushStatistics = {};
  });
}

T_FVOF_INFORMATION* VemoGetFVOFInf() {
  T_FVOF_INFORMATION* statistics = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    if (qel::ThreadRecord* record = qel::GetThreadRecord()) statistics = &record->flushStatistics;
  });
  return statistics;
}
