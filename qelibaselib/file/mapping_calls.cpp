#include "qelibaselib/file/mapping_calls.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/file/wide_log_text.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

namespace {

constexpr DWORD kCreateAttempts = 30;
constexpr DWORD kCreateIntervalMs = 100;
constexpr DWORD kMapIntervalMs = 300;

// Whether a view that could not be had for `error` is tried for again.
bool WaitsForAddressSpace(DWORD error, DWORD startTicks, DWORD timeoutMs) {
  if (error != ERROR_NOT_ENOUGH_MEMORY) return false;
  return timeoutMs == INFINITE || GetTickCount() - startTicks <= timeoutMs;
}

}  // namespace

HANDLE CreateFileMappingX(int line, const char* sourceFile, HANDLE file, LPSECURITY_ATTRIBUTES sa, DWORD protect,
                          DWORD maximumSizeLow, DWORD maximumSizeHigh, const wchar_t* name) {
  HANDLE mapping = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    const auto log = [&](DWORD retryCount, DWORD error, const char* status) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile},
                      "retryCount=%lu, lastErr=%lu, %s, %s(0x%lx, 0x%p, 0x%lx, %lu, %lu, %s)", retryCount, error,
                      status, "CreateFileMappingX", reinterpret_cast<ULONG_PTR>(file), sa, protect, maximumSizeHigh,
                      maximumSizeLow, qel::WideLogText(name).Get());
    };
    DWORD error = ERROR_SUCCESS;
    for (DWORD retryCount = 0; retryCount < kCreateAttempts; ++retryCount) {
      mapping = CreateFileMappingW(file, sa, protect, maximumSizeHigh, maximumSizeLow, name);
      error = GetLastError();
      if (mapping) {
        if (retryCount == 0)
          qel::RestoreError(error);
        else
          log(retryCount, ERROR_SUCCESS, "Complete");
        return;
      }
      log(retryCount, error, "Retry");
      Sleep(kCreateIntervalMs);
    }
    qel::RestoreError(error);
  });
  return mapping;
}

HANDLE OpenFileMappingX(int line, const char* sourceFile, DWORD desiredAccess, BOOL inheritHandle,
                        const wchar_t* name) {
  HANDLE mapping = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    mapping = OpenFileMappingW(desiredAccess, inheritHandle, name);
    const DWORD error = GetLastError();
    if (!mapping) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile}, "lastErr=%lu, %s(0x%lx, %lu, %s)", error,
                      "OpenFileMappingX", desiredAccess, static_cast<DWORD>(inheritHandle),
                      qel::WideLogText(name).Get());
    }
    qel::RestoreError(error);
  });
  return mapping;
}

void* MapViewOfFileX(int line, const char* sourceFile, HANDLE mapping, DWORD desiredAccess, DWORD fileOffsetLow,
                     DWORD fileOffsetHigh, SIZE_T bytesToMap, DWORD timeoutMs) {
  void* view = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    const DWORD startTicks = GetTickCount();
    for (;;) {
      view = MapViewOfFile(mapping, desiredAccess, fileOffsetHigh, fileOffsetLow, bytesToMap);
      const DWORD error = GetLastError();
      if (!view) {
        qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile},
                        "lastErr=%lu, %s(0x%lx, 0x%lx, %lu, %lu, %lu)", error, "MapViewOfFileX",
                        reinterpret_cast<ULONG_PTR>(mapping), desiredAccess, fileOffsetHigh, fileOffsetLow,
                        static_cast<DWORD>(bytesToMap));
        if (WaitsForAddressSpace(error, startTicks, timeoutMs)) {
          Sleep(kMapIntervalMs);
          continue;
        }
      }
      qel::RestoreError(error);
      return;
    }
  });
  return view;
}

BOOL UnmapViewOfFileX(int line, const char* sourceFile, const void* baseAddress) {
  BOOL unmapped = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    unmapped = UnmapViewOfFile(baseAddress);
    const DWORD error = GetLastError();
    if (!unmapped) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile}, "lastErr=%lu, %s(0x%p)", error,
                      "UnmapViewOfFileX", baseAddress);
    }
    qel::RestoreError(error);
  });
  return unmapped;
}
