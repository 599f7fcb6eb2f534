/// @file
/// A loaded module as the walks and the search for symbols know it.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/modules/loaded_headers.h"
#include "qelibaselib/platform/linux/modules/symbol_table.h"

namespace qel::layer {

struct LoadedModule {
  uint32_t bias = 0;  ///< what loading added to the addresses in the file
  uint32_t start = 0;
  uint32_t end = 0;
  const char* path = nullptr;  ///< the loader's; it lives as long as the module is loaded
  bool isProgram = false;
  LoadedHeaders headers{};
  bool isRead = false;  ///< `symbols` were looked for
  SymbolTable symbols{};
};

/// The first program header of the type that also `fits`; null for none.
template <class Fits>
const Elf32_Phdr* FindSegment(const LoadedModule& module, uint32_t type, Fits fits) {
  for (const Elf32_Phdr& segment : module.headers.all()) {
    if (segment.p_type == type && fits(segment)) return &segment;
  }
  return nullptr;
}
inline const Elf32_Phdr* FindSegment(const LoadedModule& module, uint32_t type) {
  return FindSegment(module, type, [](const Elf32_Phdr&) { return true; });
}

/// The functions of a module: from its file, where that is still the one that was loaded; otherwise those that the
/// loader itself needs, which are in memory.
SymbolTable ReadModuleSymbols(const LoadedModule& module);

/// From the file alone.
SymbolTable ReadFileSymbols(int file);
/// From memory alone: the section .dynsym.
SymbolTable ReadLoadedSymbols(const LoadedModule& module);

}  // namespace qel::layer
