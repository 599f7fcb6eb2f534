#include "qelibaselib/memory/guarded_allocation.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "qelibaselib/base/format.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/memory/size_warning.h"
#include "qelibaselib/memory/source_name.h"
#include "qelibaselib/settings/display.h"
#include "qelibaselib/settings/memory_status.h"
#include "qelibaselib/settings/thread_record.h"

namespace qel::memory {

constinit DWORD sizeWarningLimit = 0;

namespace {

constexpr int kHeapCheckAtAllocation = 249;
constexpr int kHeapCheckAtFree = 322;
constexpr DWORD kHeapCheckInterval = 10000;

constexpr DWORD kSpareBytes = 8;
constexpr DWORD kSmallClassesBytes[] = {16, 64, 256, 1024};
constexpr DWORD kRoundingPageBytes = 4096;

constexpr DWORD kWaitPeriodMs = 1000;
constexpr DWORD kShortestWaitMs = 100;
constexpr unsigned kMiBShift = 20;

// Incremented without an atomic read-modify-write: a count, and so a heap check, may be lost to another thread.
constinit std::atomic<DWORD> g_allocationCount{0};
constinit LONG volatile g_failureCount = 0;

DWORD CountAllocation() {
  const DWORD count = g_allocationCount.load(std::memory_order_relaxed) + 1;
  g_allocationCount.store(count, std::memory_order_relaxed);
  return count;
}

// The sum wraps for the last sizes below 4 GiB. The rounding must not: 0 bytes would be granted, what is needed is not.
DWORD RoundSize(DWORD size) {
  const DWORD needed = size + kSpareBytes;
  for (const DWORD classBytes : kSmallClassesBytes)
    if (needed < classBytes) return classBytes;
  return std::max(needed, (needed + kRoundingPageBytes - 1) & ~(kRoundingPageBytes - 1));
}

void CheckHeap(int checkLine, SourcePosition caller) {
  const int code = _heapchk();
  if (code == _HEAPOK) return;
  WriteAssertion({checkLine, kSourceName});
  char message[32];
  FormatText(message, sizeof message, "_heapchk()=%d", code);
  WriteLine(channel::kMemoryAllocation, message, caller);
  VemoDispInf(message, TRUE);
}

void CheckHeapAt(DWORD allocationCount, int checkLine, SourcePosition caller) {
  if (allocationCount % kHeapCheckInterval == 0) [[unlikely]]
    CheckHeap(checkLine, caller);
}

// Counts and logs a failed attempt.
void ReportFailure(DWORD size, SourcePosition caller) {
  const LONG failures = InterlockedIncrement(&g_failureCount);
  DWORD largestFree = 0;
  DWORD freeSum = 0;
  MEMORYSTATUSEX status;
  VemoGetMemoryStatus(&largestFree, &freeSum, &status, nullptr);
  WriteLineF(channel::kMemoryAllocation, caller,
             "allocSize=%lu, MemoryLoad=%lu, AvailPhys=%I64u, AvailVirtual=%I64u, MaxFreeSize=%lu, FreeMemSize=%lu, "
             "errCount1=%lu",
             size, status.dwMemoryLoad, status.ullAvailPhys >> kMiBShift, status.ullAvailVirtual >> kMiBShift,
             largestFree >> kMiBShift, freeSum >> kMiBShift, static_cast<DWORD>(failures));
}

// A length taken from the clock keeps threads that fail together from retrying in step.
void WaitAfterFailure() { Sleep(std::max(GetTickCount() % kWaitPeriodMs, kShortestWaitMs)); }

// Asks `allocate` until it gives a block or the time-out has run out; then the last error is that of the last attempt.
template <class Allocate>
void* AllocateWithRetry(Allocate&& allocate, DWORD size, DWORD timeoutMs, SourcePosition caller) {
  const DWORD start = GetTickCount();
  for (;;) {
    if (void* block = allocate(size)) return block;
    const DWORD savedError = GetLastError();
    ReportFailure(size, caller);
    WaitAfterFailure();
    if (timeoutMs != INFINITE && GetTickCount() - start > timeoutMs) {
      RestoreError(savedError);
      return nullptr;
    }
  }
}

// The operator itself, not a new expression: one for more than half the address space would fail before it reaches the
// allocator and the host's handler.
void* AllocateFromHeap(DWORD size) {
  try {
    return operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// A thread's time in MemAllocHandler. What is allocated meanwhile, for the line, fails at once: the heap would
// otherwise call the handler for that too, without end. The threads stand in a table, as a variable of each thread's
// own may take memory at its first use.
class HandlerTurn {
 public:
  HandlerTurn() {
    const DWORD self = GetCurrentThreadId();
    for (const auto& thread : g_threads)
      if (thread.load(std::memory_order_relaxed) == self) throw std::bad_alloc();
    for (auto& thread : g_threads) {
      DWORD none = 0;
      if (!place_ && thread.compare_exchange_strong(none, self)) place_ = &thread;
    }
  }
  HandlerTurn(const HandlerTurn&) = delete;
  HandlerTurn& operator=(const HandlerTurn&) = delete;
  ~HandlerTurn() {
    if (place_) place_->store(0);
  }
  // False while the table is full; such a thread must not allocate.
  bool HasPlace() const { return place_ != nullptr; }

 private:
  static constinit std::atomic<DWORD> g_threads[64];
  std::atomic<DWORD>* place_ = nullptr;
};
constinit std::atomic<DWORD> HandlerTurn::g_threads[64] = {};

void* AllocatePages(DWORD size) { return VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE); }

}  // namespace
}  // namespace qel::memory

using namespace qel::memory;  // NOLINT(google-build-using-namespace): the bodies of the exports

void* _MemAlloc(const char* sourceFile, int line, DWORD size, DWORD timeoutMs) {
  void* block = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    const qel::SourcePosition caller{line, sourceFile};
    const DWORD count = CountAllocation();
    WarnOfSize("Warning : _MemAllocSize=%lu", size, caller);
    CheckHeapAt(count, kHeapCheckAtAllocation, caller);
    const qel::ScopedSourcePosition registered(caller);  // for a handler that the heap calls meanwhile
    block = AllocateWithRetry(AllocateFromHeap, RoundSize(size), timeoutMs, caller);
  });
  return block;
}

void _MemFree(const char* sourceFile, int line, void* block) {
  qel::Guarded(QEL_HERE, [&] {
    CheckHeapAt(g_allocationCount.load(std::memory_order_relaxed), kHeapCheckAtFree, {line, sourceFile});
    operator delete[](block);
  });
}

void* _VMemAlloc(const char* sourceFile, int line, DWORD size, DWORD timeoutMs) {
  void* block = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    const qel::SourcePosition caller{line, sourceFile};
    WarnOfSize("Warning : _VMemAllocSize=%lu", size, caller);
    block = AllocateWithRetry(AllocatePages, RoundSize(size), timeoutMs, caller);
  });
  return block;
}

BOOL _VMemFree(const char* sourceFile, int line, void* base) {
  UNREFERENCED_PARAMETER(sourceFile);
  UNREFERENCED_PARAMETER(line);
  BOOL released = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    if (base) released = VirtualFree(base, 0, MEM_RELEASE);
  });
  return released;
}

int MemAllocHandler(std::size_t size) {
  const HandlerTurn turn;
  qel::Guarded(QEL_HERE, [&] {
    qel::SourcePosition caller = qel::kNoSourcePosition;
    if (turn.HasPlace()) {
      qel::GetRegisteredSourcePosition(caller);
      ReportFailure(size, caller);
    }
    WaitAfterFailure();
  });
  return 1;
}
