#include "qelibaselib/settings/memory_load.h"

#include "qelibaselib/base/source_position.h"
#include "qelibaselib/memory/checked_memory.h"

namespace qel {
namespace {
constexpr SourcePosition kClearing{915, "modulestatus.cpp"};
}

void ReadMemoryStatus(MEMORYSTATUSEX& status) {
  _MemSet(&status, 0, sizeof(status), kClearing.line, kClearing.sourceFile);
  status.dwLength = sizeof(status);
  GlobalMemoryStatusEx(&status);
}

DWORD ReadMemoryLoad() {
  MEMORYSTATUSEX status;
  ReadMemoryStatus(status);
  return status.dwMemoryLoad;
}

}  // namespace qel
