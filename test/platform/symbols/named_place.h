// The name that the debug help has for an address.
#pragma once
#include <string>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

struct NamedPlace {
  std::string name;    // empty where there is none; then the displacement is
  DWORD displacement;  // the last error
};

inline NamedPlace NameOf(DWORD address) {
  alignas(IMAGEHLP_SYMBOL) char block[1000] = {};
  auto* symbol = reinterpret_cast<IMAGEHLP_SYMBOL*>(block);
  symbol->SizeOfStruct = sizeof *symbol;
  symbol->MaxNameLength = sizeof block - sizeof *symbol;
  DWORD displacement = 0;
  if (!SymGetSymFromAddr(GetCurrentProcess(), address, &displacement, symbol)) return {"", GetLastError()};
  return {symbol->Name, displacement};
}

}  // namespace qel::test
