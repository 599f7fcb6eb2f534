/// @file
/// What GetCurrentProcess and GetCurrentThread stand for.
#pragma once
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"

namespace qel::layer {

/// The two objects are those of the rooms processes/ and threads/, which stand on this one; they define these calls.
/// The second gives null when memory is out.
Object* CurrentProcessObject();
Object* CurrentThreadObject();

inline bool IsPseudoHandle(HANDLE handle) { return handle == GetCurrentProcess() || handle == GetCurrentThread(); }

/// Null for any other handle.
inline Object* FindPseudoObject(HANDLE handle) {
  if (handle == GetCurrentProcess()) return CurrentProcessObject();
  return handle == GetCurrentThread() ? CurrentThreadObject() : nullptr;
}

}  // namespace qel::layer
