// The debug help, and the name that it has for an address.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

// The debug help is ready while this lives.
struct Session {
  Session() { EXPECT_TRUE(SymInitialize(GetCurrentProcess(), nullptr, TRUE)); }
  ~Session() { SymCleanup(GetCurrentProcess()); }
};

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
