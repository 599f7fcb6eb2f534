// clang-format off
// fuzz-sources: qelibaselib/platform/linux/modules/table_cursor.cpp qelibaselib/platform/linux/modules/unwind_entry.cpp qelibaselib/platform/linux/modules/unwind_expression.cpp qelibaselib/platform/linux/modules/unwind_program.cpp qelibaselib/platform/linux/modules/unwind_step.cpp
// clang-format on

// Walks of a stack by any unwind tables: a hostile table gives a shorter walk, nothing else. The input is a header,
// then one piece of memory that holds tables and stack.
#include <cstring>
#include <span>

#include "qelibaselib/platform/linux/modules/unwind_step.h"

namespace {

using namespace qel::layer;

constexpr uint32_t kMemoryStart = 0x10000;
constexpr int kMostFrames = 50;

struct Header {
  uint32_t tables;  // from the start of the memory
  uint32_t tableBytes;
  uint32_t registers[kUnwindColumns];
};

std::span<const uint8_t> g_memory;

BOOL WINAPI ReadMemory(HANDLE, DWORD address, PVOID bytes, DWORD count, PDWORD taken) {
  const uint32_t offset = static_cast<uint32_t>(address) - kMemoryStart;
  if (offset > g_memory.size() || count > g_memory.size() - offset) return FALSE;
  std::memcpy(bytes, g_memory.data() + offset, count);
  *taken = count;
  return TRUE;
}

void Walk(const Header& header) {
  const WalkMemory memory(nullptr, &ReadMemory);
  const UnwindTables tables{kMemoryStart + header.tables, kMemoryStart + header.tables + header.tableBytes};
  UnwindRegisters registers;
  for (uint32_t column = 0; column < kUnwindColumns; ++column)
    registers.Set(static_cast<UnwindColumn>(column), header.registers[column]);
  bool wasInterrupted = true;
  for (int frames = 0; frames < kMostFrames; ++frames) {
    CallerFrame caller;
    if (StepByTables(memory, tables, registers, wasInterrupted, caller) != StepResult::kCaller) return;
    registers = caller.registers;
    wasInterrupted = caller.wasInterrupted;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Header header;
  if (size < sizeof header) return 0;
  std::memcpy(&header, data, sizeof header);
  g_memory = {data + sizeof header, size - sizeof header};
  Walk(header);
  return 0;
}
