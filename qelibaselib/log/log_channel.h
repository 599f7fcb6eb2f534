/// @file
/// The log channels of the library and the one function that writes a line to one of them.
#pragma once
#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/source_position.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

/// How long a writer waits for the mutex of a channel or report.
inline constexpr DWORD kLogMutexTimeoutMs = 60000;
/// A channel file that is longer takes no more lines.
inline constexpr DWORD kChannelLimitBytes = layout::kChannelLimitBytes;

/// The stem of the named mutex and the bare name of the file in the log folder.
struct LogChannel {
  const wchar_t* mutexStem;
  const wchar_t* fileName;
};

namespace channel {
// The assertion stem has no "_7EFEA029" and the flush stem an "n" that its file lacks: both are as they must be.
inline constexpr LogChannel kAssert{L"VemoLogOutAssert-EA59-4b7f-95DE-60189EB13537", layout::kAssertFile.wide};
inline constexpr LogChannel kMisc{L"VemoLogOutMisc_7EFEA029-EA59-4b7f-95DE-60189EB13537", layout::kMiscFile.wide};
inline constexpr LogChannel kLock{L"VemoLockLogOut_7EFEA029-EA59-4b7f-95DE-60189EB13537", layout::kLockFile.wide};
inline constexpr LogChannel kFileOperation{L"VemoFileOperation_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                           layout::kFileOperationFile.wide};
inline constexpr LogChannel kFlush{L"VemoFlushViewOfFileLogOutn_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                   layout::kFlushFile.wide};
inline constexpr LogChannel kMemoryAllocation{L"VemoMemAllocLogOut_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                              layout::kMemoryAllocationFile.wide};
inline constexpr LogChannel kMemoryOperation{L"VemoMemOperation_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                             layout::kMemoryOperationFile.wide};
inline constexpr LogChannel kModuleStatusError{L"VemoModuleStatusError_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                               layout::kModuleStatusErrorFile.wide};
inline constexpr LogChannel kWinApiWrap{L"VemoWinApiWrap_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                        layout::kWinApiWrapFile.wide};
/// Reports share the naming, not the writer: they write their files themselves, under the same kind of mutex.
inline constexpr LogChannel kModuleStatusReport{L"VemoModuleStatus_382C6292-9290-4b97-83B1-2AB8C02F9A5D",
                                                layout::kModuleStatusReportFile.wide};
inline constexpr LogChannel kExceptionReport{L"VemoExceptLogOut_4DE2C31F-8F8D-495a-80A9-BCEE1FEF19FE",
                                             layout::kExceptionReportFile.wide};
inline constexpr LogChannel kBenchmarkReport{L"QelSystemBenchmark_7EFEA029-EA59-4b7f-95DE-60189EB13537",
                                             layout::kBenchmarkReportFile.wide};
}  // namespace channel

/// Writes one line with the caller's position. Never throws, reports nothing, keeps the last error.
void WriteLine(const LogChannel& channel, const char* message, SourcePosition position);

/// As WriteLine, the message formatted first (qelibaselib/base/format.h), whatever its length.
void WriteLineF(const LogChannel& channel, SourcePosition position, const char* format, ...)
#ifdef __MINGW32__
    __attribute__((format(ms_printf, 3, 4)))
#endif
    ;

/// "ASSERT : %s(%d)" to the assertion channel, the line itself attributed to the same position.
void WriteAssertion(SourcePosition position);
/// "ASSERT : %s(%d), lec=%lu" with the last error as the caller read it.
void WriteAssertion(SourcePosition position, DWORD lastError);
/// "ASSERT : %s(%d), %s" with a short text.
void WriteAssertion(SourcePosition position, const char* text);

}  // namespace qel
