// What the loader calls when the library or a thread comes and goes.
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/settings/processor_record.h"
#include "qelibaselib/settings/thread_record.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

void AttachProcess() {
  fault::ProcessAttach();
  qel::ReadProcessorCount();
  qel::GetThreadRecord();
  qel::ReadSystemVersionRecord();
}

void DetachProcess() {
  qel::FreeThreadRecord();
  qel::FreeThreadRecordSlot();
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      qel::Guarded(QEL_HERE, &AttachProcess);
      break;
    case DLL_THREAD_ATTACH:
      qel::Guarded(QEL_HERE, [] { qel::GetThreadRecord(); });
      break;
    case DLL_THREAD_DETACH:
      qel::Guarded(QEL_HERE, &qel::FreeThreadRecord);
      break;
    case DLL_PROCESS_DETACH:
      qel::Guarded(QEL_HERE, &DetachProcess);
      break;
    default:
      break;
  }
  return TRUE;
}
