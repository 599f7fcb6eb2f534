#include <atomic>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/modules/frame_walk.h"
#include "qelibaselib/platform/linux/modules/symbol_store.h"
#include "qelibaselib/platform/linux/win32/dbghelp.h"
#include "qelibaselib/platform/linux/win32/libloaderapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

/// Threads that are inside a session. On Windows a second session fails; here they are counted, since reports of
/// several threads may overlap.
std::atomic<int> g_sessions = 0;

DWORD FindSymbol(DWORD address, DWORD& displacement, IMAGEHLP_SYMBOL& symbol) {
  if (symbol.SizeOfStruct < sizeof symbol) return ERROR_INVALID_PARAMETER;
  if (g_sessions == 0) return ERROR_INVALID_HANDLE;
  if (FindModuleBase(address) == 0) return ERROR_MOD_NOT_FOUND;
  FoundFunction found;
  // A call that does not return may be the last instruction of its function.
  const DWORD place = IsReturnAddressOfWalk(address) ? address - 1 : address;
  if (!FindFunction(place, found, symbol.Name, symbol.MaxNameLength) &&
      !FindModuleFile(place, found, symbol.Name, symbol.MaxNameLength)) {
    return ERROR_INVALID_ADDRESS;
  }
  symbol.Address = found.address;
  symbol.Size = found.size;
  symbol.Flags = 0;
  displacement = address - found.address;
  return ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL WINAPI SymInitialize(HANDLE, LPCSTR, BOOL) {
  RefreshModules();
  ++g_sessions;
  return TRUE;
}

BOOL WINAPI SymCleanup(HANDLE) {
  int sessions = g_sessions;
  while (sessions > 0) {
    if (g_sessions.compare_exchange_weak(sessions, sessions - 1)) return TRUE;
  }
  return ReportResult(ERROR_INVALID_HANDLE);
}

DWORD WINAPI SymGetModuleBase(HANDLE, DWORD address) {
  const DWORD error = g_sessions == 0 ? ERROR_INVALID_HANDLE : ERROR_MOD_NOT_FOUND;
  const DWORD base = g_sessions == 0 ? 0 : FindModuleBase(address);
  if (base == 0) SetLastError(error);
  return base;
}

BOOL WINAPI SymGetSymFromAddr(HANDLE, DWORD address, PDWORD displacement, PIMAGEHLP_SYMBOL symbol) {
  DWORD distance = 0;
  const DWORD error = FindSymbol(address, distance, *symbol);
  if (error == ERROR_SUCCESS && displacement) *displacement = distance;
  return ReportResult(error);
}

PVOID WINAPI SymFunctionTableAccess(HANDLE, DWORD) { return nullptr; }
