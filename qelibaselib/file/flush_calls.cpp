#include "qelibaselib/file/flush_calls.h"

#include <algorithm>
#include <atomic>

#include "qelibaselib/base/delta_time.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/chunked_view.h"
#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/file/no_cache_decision.h"
#include "qelibaselib/file/retrying_calls.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/settings/flush_statistics.h"

namespace qel {
namespace {

constexpr DWORD kMostFlushRetries = 100;
constexpr DWORD kFlushIntervalMs = 30;
constexpr DWORD kOpenTimeoutMs = 10000;
constexpr DWORD kOpenIntervalMs = 1000;

double ElapsedMs(const CDeltaTime& timer) { return timer.ElapsedUs() * 0.001; }

// The longest successful flush of the process in ms. Two threads may overtake each other; then there is a line more or
// a line fewer.
std::atomic<double> longestFlushMs = 0;

// One FlushViewOfFile with what its line tells.
struct FlushAttempt {
  FlushAttempt(const void* address, SIZE_T bytes) {
    const CDeltaTime timer;
    flushed = FlushViewOfFile(address, bytes);
    error = GetLastError();
    firstReadingMs = ElapsedMs(timer);
    secondReadingMs = ElapsedMs(timer);
  }
  BOOL flushed;
  DWORD error;
  double firstReadingMs, secondReadingMs;
};

// Whether a successful flush was the longest so far; then it is from now on.
bool RaisesLongestFlush(double ms) {
  if (ms <= longestFlushMs.load(std::memory_order_relaxed)) return false;
  longestFlushMs.store(ms, std::memory_order_relaxed);
  return true;
}

// Flushes with retries and lines; the saved error goes to `error`.
BOOL FlushRetrying(SourcePosition caller, const void* address, SIZE_T bytes, DWORD& error) {
  for (DWORD retryCount = 0;; ++retryCount) {
    const FlushAttempt attempt(address, bytes);
    const auto log = [&](const char* outcome, const char* status) {
      WriteLineF(channel::kFlush, caller, "%s, retryCount=%lu, lastErr=%lu, ET1=%f, ET2=%f, %s, %s(0x%p, %lu)", outcome,
                 retryCount, attempt.error, attempt.firstReadingMs, attempt.secondReadingMs, status, "FlushViewOfFileX",
                 address, static_cast<DWORD>(bytes));
    };
    error = attempt.error;
    if (attempt.flushed) {
      const bool longest = RaisesLongestFlush(attempt.firstReadingMs);
      if (longest || retryCount != 0) log("Success", "Complete");
      return TRUE;
    }
    if (error != ERROR_LOCK_VIOLATION || retryCount >= kMostFlushRetries) {
      log("Error", "Complete");
      return FALSE;
    }
    log("Error", "Retry");
    Sleep(kFlushIntervalMs);
  }
}

// What a flush of `bytes` covers: all of the region behind the address when it is 0.
SIZE_T FlushedBytes(const void* address, SIZE_T bytes) {
  if (bytes != 0) return bytes;
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(address, &region, sizeof region) == 0) return 0;
  return region.RegionSize - (static_cast<const BYTE*>(address) - static_cast<const BYTE*>(region.BaseAddress));
}

void CountFlush(const void* address, SIZE_T bytes, const CDeltaTime& timer) {
  T_FVOF_INFORMATION* statistics = VemoGetFVOFInf();
  if (!statistics) return;
  statistics->totalBytes += FlushedBytes(address, bytes);
  ++statistics->callCount;
  const double ms = ElapsedMs(timer);
  statistics->totalMs += ms;
  statistics->longestMs = std::max(statistics->longestMs, ms);
}

// Flushes every chunk of a file of `size` bytes. Returns false where a mapping or view is not to be had.
bool FlushChunks(SourcePosition caller, HANDLE file, unsigned long long size, BOOL allowSkip) {
  const ScopedMapping mapping(CreateFileMappingX(caller.line, caller.sourceFile, file, nullptr, PAGE_READWRITE,
                                                 Low(size), High(size), nullptr));
  if (!mapping) {
    WriteAssertion(QEL_HERE);
    return false;
  }
  for (const Chunk chunk : Chunks(size)) {
    const ScopedView view(caller, mapping.Get(), FILE_MAP_ALL_ACCESS, chunk.offset, chunk.bytes);
    if (!view) {
      WriteAssertion(QEL_HERE);
      return false;
    }
    FlushViewOfFileX(caller.line, caller.sourceFile, view.Get(), 0, allowSkip ? file : INVALID_HANDLE_VALUE);
  }
  return true;
}

}  // namespace
}  // namespace qel

BOOL FlushViewOfFileX(int line, const char* sourceFile, const void* baseAddress, SIZE_T bytesToFlush, HANDLE file) {
  BOOL flushed = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    if (qel::no_cache::AppliesToFlush(file)) {
      flushed = TRUE;
      return;
    }
    const CDeltaTime timer;
    DWORD error;
    flushed = qel::FlushRetrying({line, sourceFile}, baseAddress, bytesToFlush, error);
    qel::CountFlush(baseAddress, bytesToFlush, timer);
    qel::RestoreError(error);  // last: the thread's record and the region are looked up through calls that set it
  });
  return flushed;
}

BOOL FlushMMF(int line, const char* sourceFile, HANDLE file, BOOL allowSkip) {
  BOOL result = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    LARGE_INTEGER size;
    result = GetFileSizeEx(file, &size);
    if (!result) {
      const DWORD error = GetLastError();
      qel::WriteAssertion(QEL_HERE);
      qel::RestoreError(error);
      return;
    }
    // Whether a mapping or view failed is not the result: only the lines tell of it.
    qel::FlushChunks({line, sourceFile}, file, size.QuadPart, allowSkip);
    result = TRUE;
  });
  return result;
}

BOOL FlushMMF2(int, const char*, const wchar_t* fileName, BOOL allowSkip) {
  BOOL result = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath path(fileName);
    const qel::ScopedFile file(CreateFileX(__LINE__, __FILE__, path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                           nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr, qel::kOpenTimeoutMs,
                                           qel::kOpenIntervalMs));
    if (file) result = FlushMMF(__LINE__, __FILE__, file.Get(), allowSkip);
  });
  return result;
}
