// GetProcessHandleCount answers 0 under Wine; the list of all handles of the system does not.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "platform/win32.h"
#include "test/support/open_handles.h"

namespace qel::test {
namespace {

constexpr ULONG kSystemHandleInformation = 16;
constexpr LONG kLengthMismatch = static_cast<LONG>(0xC0000004);

struct HandleEntry {
  ULONG processId;
  BYTE objectType, flags;
  USHORT handle;
  PVOID object;
  ULONG access;
};
static_assert(sizeof(HandleEntry) == 16);

using Query = LONG(WINAPI*)(ULONG kind, PVOID buffer, ULONG bytes, PULONG needed);

Query FindQuery() {
  const FARPROC found = GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation");
  return reinterpret_cast<Query>(reinterpret_cast<void*>(found));
}

}  // namespace

unsigned long OpenHandleCount() {
  static const Query query = FindQuery();
  std::vector<HandleEntry> buffer(4096);  // the count comes first, in the place of one entry's first field
  LONG status;
  while ((status = query(kSystemHandleInformation, buffer.data(),
                         static_cast<ULONG>(buffer.size() * sizeof(HandleEntry)), nullptr)) == kLengthMismatch)
    buffer.resize(buffer.size() * 2);
  if (status != 0) throw std::runtime_error("NtQuerySystemInformation");
  const auto* bytes = reinterpret_cast<const BYTE*>(buffer.data());
  const ULONG count = *reinterpret_cast<const ULONG*>(bytes);
  const auto* first = reinterpret_cast<const HandleEntry*>(bytes + sizeof(ULONG));
  const DWORD self = GetCurrentProcessId();
  return static_cast<unsigned long>(
      std::count_if(first, first + count, [self](const HandleEntry& entry) { return entry.processId == self; }));
}

}  // namespace qel::test
