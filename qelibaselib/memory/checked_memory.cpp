#include "qelibaselib/memory/checked_memory.h"

#include <cstdint>
#include <iterator>

#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/memory/byte_compare.h"
#include "qelibaselib/memory/size_warning.h"
#include "qelibaselib/platform/fault/may_fault.h"

namespace {

bool IsReadable(const void* buffer, DWORD size) {
  if (size == 0) return true;
  const void* last = reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(buffer) + size - 1);
  return !IsBadReadPtr(buffer, 1) && !IsBadReadPtr(last, 1);
}

// Continuable: a handler may let the caller go on without its operation.
void RaiseAccessViolation(ULONG_PTR first, ULONG_PTR second, DWORD size) {
  const ULONG_PTR parameters[] = {first, second, size};
  RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, std::size(parameters), parameters);
}

ULONG_PTR AsParameter(const void* pointer) { return reinterpret_cast<ULONG_PTR>(pointer); }

// Of two buffers the first that is bad is named, by the copy's word in the comparison too.
[[gnu::cold]] void ReportBadBuffers(const char* format, const void* first, const void* second, DWORD size,
                                    const char* badBuffer, qel::SourcePosition position) {
  qel::WriteLineF(qel::channel::kMemoryOperation, position, format, first, second, size, badBuffer);
  RaiseAccessViolation(AsParameter(first), AsParameter(second), size);
}

const char* BadBuffer(const void* first, const void* second, DWORD size) {
  if (!IsReadable(first, size)) return "pDst";
  if (!IsReadable(second, size)) return "pSrc";
  return nullptr;
}

}  // namespace

BOOL ChkMemAccess(const void* buffer, DWORD size, int direction) {
  UNREFERENCED_PARAMETER(direction);
  BOOL usable = FALSE;
  qel::Guarded(QEL_HERE, [&] { usable = IsReadable(buffer, size); });
  return usable;
}

void* _MemCpy(void* destination, const void* source, DWORD size, int line, const char* sourceFile) {
  qel::memory::WarnOfSize("Warning : __MemCpySize=%lu", size, {line, sourceFile});
  const char* badBuffer = BadBuffer(destination, source, size);
  if (!badBuffer) return may_fault::CopyBytes(destination, source, size);
  ReportBadBuffers("_MemCpy(0x%p, 0x%p, %lu), Error(%s)", destination, source, size, badBuffer, {line, sourceFile});
  return destination;
}

int _MemCmp(const void* first, const void* second, DWORD size, int line, const char* sourceFile) {
  const char* badBuffer = BadBuffer(first, second, size);
  if (!badBuffer) return qel::memory::CompareBytes(first, second, size);
  ReportBadBuffers("_MemCmp(0x%p, 0x%p, %lu), Error(%s)", first, second, size, badBuffer, {line, sourceFile});
  return -1;
}

void* _MemSet(void* destination, int value, DWORD size, int line, const char* sourceFile) {
  if (IsReadable(destination, size)) return may_fault::FillBytes(destination, value, size);
  qel::WriteLineF(qel::channel::kMemoryOperation, {line, sourceFile}, "_MemSet(0x%p, %d, %lu)", destination, value,
                  size);
  RaiseAccessViolation(AsParameter(destination), static_cast<ULONG_PTR>(value), size);
  return destination;
}
