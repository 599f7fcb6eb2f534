/// @file
/// The loaded modules and their functions, kept between walks.
#pragma once
#include <cstddef>
#include <cstdint>

#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/modules/unwind_entry.h"

namespace qel::layer {

struct FoundFunction {
  uint32_t address = 0;  // where it is loaded
  uint32_t size = 0;
};

/// Looks at the list of loaded modules again when that has changed. A module's symbols are read at the first look-up in
/// it, and kept, unless another thread does not leave the store, or the loader's list, within seconds, or this thread
/// has faulted in the store: the questions below are then answered one by one, without either. Nothing here takes
/// memory from the heap.
void RefreshModules();

/// The address of the first byte of the module that the address lies in; 0 for none.
uint32_t FindModuleBase(uint32_t address);

/// Whether the address lies in an executable part of a module.
bool IsModuleCode(uint32_t address);

/// The unwind tables of the module that the address lies in; false for none.
bool FindUnwindTables(uint32_t address, UnwindTables& tables);

/// The function that the address lies in; false for none. `name`, when given, receives its readable name, cut to `size`
/// characters with the terminator.
bool FindFunction(uint32_t address, FoundFunction& found, char* name, std::size_t size);

extern const ForkedPart kSymbolStoreAtFork;
/// The module that the address lies in, named by its file without the folder; false for none.
bool FindModuleFile(uint32_t address, FoundFunction& found, char* name, std::size_t size);

}  // namespace qel::layer
