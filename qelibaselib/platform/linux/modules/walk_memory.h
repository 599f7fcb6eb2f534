/// @file
/// The memory that a stack walk looks at.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/win32/dbghelp.h"

namespace qel::layer {

/// Reads through a routine that probes what it reads: nothing that a walk follows can be trusted.
class WalkMemory {
 public:
  WalkMemory(HANDLE process, PREAD_PROCESS_MEMORY_ROUTINE read) : process_(process), read_(read) {}

  /// False, with `bytes` undefined, when not all of it could be read.
  bool Read(uint32_t address, void* bytes, uint32_t count) const {
    DWORD taken = 0;
    return address + count >= address && read_(process_, address, bytes, count, &taken) && taken == count;
  }
  bool ReadWord(uint32_t address, uint32_t& word) const { return Read(address, &word, sizeof word); }

 private:
  const HANDLE process_;
  const PREAD_PROCESS_MEMORY_ROUTINE read_;
};

/// The memory of this process.
WalkMemory OwnMemory();

}  // namespace qel::layer
