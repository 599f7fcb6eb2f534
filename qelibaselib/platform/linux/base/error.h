/// @file
/// Errors inside the layer: functions of the layer return a Win32 error number, and only the outermost, Win32 function
/// puts it into the thread's last error.
///
/// The room base/ holds what every other room of the layer stands on: errors, descriptors, kernel calls, small files,
/// UTF-8. It uses nothing but win32/.
#pragma once
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

/// The Win32 error of a failed system call; unknown values give ERROR_GEN_FAILURE.
DWORD ErrorFromErrno(int error);

/// Ends a Win32 function that returns BOOL: TRUE for ERROR_SUCCESS, which leaves the last error as it was; else the
/// last error is set and FALSE returned.
inline BOOL ReportResult(DWORD error) {
  if (error == ERROR_SUCCESS) return TRUE;
  SetLastError(error);
  return FALSE;
}

}  // namespace qel::layer
