/// @file
/// One function's entry in the unwind tables that compilers write for exceptions (section .eh_frame).
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/modules/walk_memory.h"

namespace qel::layer {

/// Where the unwind tables of a loaded module are: the header with its sorted search table (section .eh_frame_hdr).
struct UnwindTables {
  uint32_t header = 0;
  uint32_t headerEnd = 0;
};

struct ProgramRange {
  uint32_t begin = 0;
  uint32_t end = 0;
};

/// What an entry and the record that it shares with others say about the function's code.
struct UnwindEntry {
  uint32_t codeStart = 0;
  uint32_t codeEnd = 0;
  ProgramRange sharedProgram;  ///< the state at the start of every function of this record
  ProgramRange program;        ///< how it changes along the function
  uint32_t codeFactor = 1;
  int32_t dataFactor = 1;
  uint32_t returnColumn = 0;    ///< the number of the register that stands for the return address
  uint8_t pointerEncoding = 0;  ///< of addresses of code
  bool isAugmented = false;     ///< an entry has a part of variable length before its program
  bool isSignalFrame = false;   ///< what it returns to was interrupted, not left by a call
};

/// Finds the entry of the function that the address lies in. False when there is none or when the tables cannot be read
/// or understood.
bool FindUnwindEntry(const WalkMemory& memory, const UnwindTables& tables, uint32_t address, UnwindEntry& entry);

}  // namespace qel::layer
