#include "qelibaselib/file/no_cache_decision.h"

#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/memory/checked_memory.h"
#include "qelibaselib/settings/settings.h"

namespace qel::no_cache {

bool enabled = false;

namespace {

struct Limits {
  Limits() : fileBytes(VemoGetNoCacheFlushLimit(&memoryLoad)) {}
  DWORD memoryLoad = 0;  // percent; before fileBytes, whose initialiser fills it
  DWORD fileBytes;
};

bool IsSmallFile(HANDLE file, const Limits& limits) {
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file, &size)) {
    WriteAssertion(QEL_HERE);
    return false;
  }
  return size.QuadPart < limits.fileBytes;
}

bool StaysSmall(HANDLE file, DWORD bytesToWrite, const Limits& limits) {
  LARGE_INTEGER position;
  if (!SetFilePointerEx(file, {}, &position, FILE_CURRENT)) {
    WriteAssertion(QEL_HERE);
    return false;
  }
  return position.QuadPart + bytesToWrite < limits.fileBytes;
}

bool MemoryIsPlentiful(const Limits& limits) {
  MEMORYSTATUSEX status;
  _MemSet(&status, 0, sizeof status, __LINE__, __FILE__);
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) && status.dwMemoryLoad < limits.memoryLoad;
}

}  // namespace

bool DecideForWrite(HANDLE file, DWORD bytesToWrite) {
  const Limits limits;
  return IsSmallFile(file, limits) && StaysSmall(file, bytesToWrite, limits) && MemoryIsPlentiful(limits);
}

bool DecideForFlush(HANDLE file) {
  if (file == INVALID_HANDLE_VALUE) return false;
  const Limits limits;
  return IsSmallFile(file, limits) && MemoryIsPlentiful(limits);
}

}  // namespace qel::no_cache
