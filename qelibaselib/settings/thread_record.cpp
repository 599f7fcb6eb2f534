// The library owns one slot of the system's thread-local storage, in which each thread keeps a pointer to its own
// record. The record is made when the thread is attached or, for a thread that was there before the library, at its
// first call; it is freed when the thread is detached. Only its own thread reads or writes it, so there is no lock. The
// number of the slot is shared by all threads and set once, by an atomic exchange.
#include "qelibaselib/settings/thread_record.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/memory/checked_memory.h"
#include "qelibaselib/platform/fault/may_fault.h"
#include "qelibaselib/settings/processor_record.h"

namespace qel {
namespace {

static_assert(offsetof(ThreadRecord, sourceFile) == 4 && offsetof(ThreadRecord, flushStatistics) == 272);

constinit LONG g_slot = static_cast<LONG>(TLS_OUT_OF_INDEXES);

DWORD RecordSlot() { return static_cast<DWORD>(__atomic_load_n(&g_slot, __ATOMIC_RELAXED)); }

bool HasSlot() { return RecordSlot() != TLS_OUT_OF_INDEXES; }

[[gnu::cold]] bool AllocateSlot() {
  const DWORD slot = TlsAlloc();
  if (slot == TLS_OUT_OF_INDEXES) {
    WriteAssertion(QEL_HERE, GetLastError());
    return false;
  }
  const LONG unallocated = static_cast<LONG>(TLS_OUT_OF_INDEXES);
  if (InterlockedCompareExchange(&g_slot, static_cast<LONG>(slot), unallocated) != unallocated)
    TlsFree(slot);  // another thread was faster
  return true;
}

void SetPosition(ThreadRecord& record, SourcePosition position) {
  const char* name = position.sourceFile ? position.sourceFile : "(null)";
  const std::size_t length = may_fault::StringLengthUpTo(name, ThreadRecord::kSourceFileBytes - 1);
  may_fault::CopyBytes(record.sourceFile, name, length);
  record.sourceFile[length] = '\0';
  record.line = position.line;
}

void ClearPosition(ThreadRecord& record) {
  std::copy_n(kNoSourceFile, std::size(kNoSourceFile), record.sourceFile);
  record.line = kNoSourcePosition.line;
}

[[gnu::cold]] ThreadRecord* CreateRecord() {
  auto* record = static_cast<ThreadRecord*>(GlobalAlloc(GMEM_FIXED, sizeof(ThreadRecord)));
  if (!record) {
    WriteAssertion(QEL_HERE, GetLastError());
    return nullptr;
  }
  _MemSet(record, 0, sizeof(ThreadRecord), __LINE__, __FILE__);
  if (!TlsSetValue(RecordSlot(), record)) {
    const DWORD error = GetLastError();
    GlobalFree(record);
    WriteAssertion(QEL_HERE, error);
    SetLastError(error);
    return nullptr;
  }
  record->threadId = GetCurrentThreadId();
  record->ompThreadCount = static_cast<int>(ProcessorCount());
  ClearPosition(*record);
  return record;
}

// `errorAtEntry` is the last error that stays.
ThreadRecord* FindOrCreateRecord(DWORD errorAtEntry) {
  if (!HasSlot() && !AllocateSlot()) return nullptr;
  auto* record = static_cast<ThreadRecord*>(TlsGetValue(RecordSlot()));  // clears the last error
  if (!record) record = CreateRecord();
  if (record) SetLastError(errorAtEntry);
  return record;
}

// Returns the record; null when there is none.
ThreadRecord* RegisterPosition(SourcePosition position) {
  const DWORD errorAtEntry = GetLastError();
  ThreadRecord* record = FindOrCreateRecord(errorAtEntry);
  if (record)
    SetPosition(*record, position);
  else
    WriteAssertion(QEL_HERE, errorAtEntry);
  return record;
}

}  // namespace

ThreadRecord* GetThreadRecord() { return FindOrCreateRecord(GetLastError()); }

void FreeThreadRecord() {
  if (!HasSlot()) return;
  auto* record = static_cast<ThreadRecord*>(TlsGetValue(RecordSlot()));
  if (!record) return;
  GlobalFree(record);
  if (!TlsSetValue(RecordSlot(), nullptr)) WriteAssertion(QEL_HERE, GetLastError());
}

void FreeThreadRecordSlot() {
  if (!HasSlot()) return;
  if (!TlsFree(RecordSlot())) WriteAssertion(QEL_HERE, GetLastError());
  InterlockedExchange(&g_slot, static_cast<LONG>(TLS_OUT_OF_INDEXES));
}

ScopedSourcePosition::ScopedSourcePosition(SourcePosition position) : record_(RegisterPosition(position)) {}

ScopedSourcePosition::~ScopedSourcePosition() {
  if (record_)
    ClearPosition(*record_);
  else
    RegisterPosition(kNoSourcePosition);
}

void GetRegisteredSourcePosition(SourcePosition& position) {
  if (const ThreadRecord* record = GetThreadRecord())
    position = {record->line, record->sourceFile};
  else
    WriteAssertion(QEL_HERE, GetLastError());
}

}  // namespace qel
