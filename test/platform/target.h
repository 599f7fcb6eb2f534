// Which system answers a test of the platform. Behaviour that differs has one expectation for each by name.
#pragma once
#include <string>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

#ifdef _WIN32
inline constexpr bool kLinux = false;
// Wine is not exact everywhere; where it differs, Windows' own answer is expected of Windows.
inline bool OnWine() { return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr; }
// As root Wine opens read-only files for writing.
inline bool PermissionsHold() {
  char user[257];
  DWORD size = sizeof user;
  return !OnWine() || !GetUserNameA(user, &size) || std::string(user) != "root";
}
#else
inline constexpr bool kLinux = true;
inline bool OnWine() { return false; }
inline bool PermissionsHold() { return true; }  // the layer tests them itself
#endif

// The value for this system: ours on Linux is what Windows gives.
template <class Value>
Value ByTarget(Value windows, Value wine) {
  return OnWine() ? wine : windows;
}

}  // namespace qel::test
