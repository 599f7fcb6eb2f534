#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/handles/pseudo_handle.h"
#include "qelibaselib/platform/linux/win32/handleapi.h"

namespace qel::layer {
namespace {

// A new reference of what a handle or pseudo handle stands for.
Reference<Object> Resolve(HANDLE handle) {
  if (IsPseudoHandle(handle)) return Reference<Object>::Share(FindPseudoObject(handle));
  const Pin pin(handle);
  return Reference<Object>::Share(pin.get());
}

DWORD Duplicate(HANDLE source, BOOL inherit, DWORD options, HANDLE* target) {
  if (options != DUPLICATE_SAME_ACCESS && options != (DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE))
    return ERROR_INVALID_PARAMETER;
  if (inherit) return ERROR_INVALID_PARAMETER;
  Reference<Object> object = Resolve(source);
  if (!object) return ERROR_INVALID_HANDLE;
  *target = InsertHandle(object.Detach());
  if (!*target) return ERROR_TOO_MANY_OPEN_FILES;
  if ((options & DUPLICATE_CLOSE_SOURCE) != 0 && !IsPseudoHandle(source)) RemoveHandle(source);
  return ERROR_SUCCESS;
}

bool CloseAny(HANDLE handle) {
  if (IsPseudoHandle(handle)) return true;
  Pin pin(handle);
  // A search is closed by FindClose alone.
  return pin.get() && pin.get()->kind() != Kind::kFind && pin.Close();
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL CloseHandle(HANDLE handle) { return ReportResult(CloseAny(handle) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE); }

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, LPHANDLE target, DWORD, BOOL inherit,
                     DWORD options) {
  HANDLE result = nullptr;
  const bool own = sourceProcess == GetCurrentProcess() && targetProcess == GetCurrentProcess();
  const DWORD error = own ? Duplicate(source, inherit, options, &result) : ERROR_INVALID_HANDLE;
  if (target) *target = result;
  return ReportResult(error);
}

BOOL GetProcessHandleCount(HANDLE process, PDWORD count) {
  if (process != GetCurrentProcess()) return ReportResult(ERROR_INVALID_HANDLE);
  *count = OpenCount();
  return TRUE;
}
