// The report of the benchmark's figures.
#include <cstdio>

#include "qelibaselib/base/format.h"
#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/scoped_stream.h"
#include "qelibaselib/base/string_converter.h"
#include "qelibaselib/file/plain_calls.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/qelsystembenchmark/qelsystembenchmark.h"
#include "qelibaselib/settings/settings.h"

namespace {

void PrintTime(std::FILE* stream, const SYSTEMTIME& time) {
  qel::FormatToStream(stream, qel::layout::kBenchmarkTime, time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
                      time.wSecond, time.wMilliseconds);
}

void PrintFigures(std::FILE* stream, const T_RESULT& result) {
  const struct {
    const char* format;
    double figure;
  } lines[] = {
      {qel::layout::kBenchmarkMemoryHeading, 0},
      {"Memory - Sequential Read        = %5.2f Mbyte/sec \n", result.memorySequentialRead},
      {"Memory - Sequential Write       = %5.2f Mbyte/sec \n", result.memorySequentialWrite},
      {"Memory - Sequential ReadWrite   = %5.2f Mbyte/sec \n", result.memorySequentialReadWrite},
      {"Memory - Random     Read        = %5.2f Mbyte/sec \n", result.memoryRandomRead},
      {"Memory - Random     Write       = %5.2f Mbyte/sec \n", result.memoryRandomWrite},
      {"Memory - Random     ReadWrite   = %5.2f Mbyte/sec \n", result.memoryRandomReadWrite},
      {qel::layout::kBenchmarkMappedHeading, 0},
      {"MMF    - Sequential Read        = %5.2f Mbyte/sec \n", result.mappedSequentialRead},
      {"MMF    - Sequential Write       = %5.2f Mbyte/sec \n", result.mappedSequentialWrite},
      {"MMF    - Sequential ReadWrite   = %5.2f Mbyte/sec \n", result.mappedSequentialReadWrite},
      {"MMF    - Random     Read        = %5.2f Mbyte/sec \n", result.mappedRandomRead},
      {"MMF    - Random     Write       = %5.2f Mbyte/sec \n", result.mappedRandomWrite},
      {"MMF\t - Random     ReadWrite   = %5.2f Mbyte/sec \n", result.mappedRandomReadWrite},
      {qel::layout::kBenchmarkThreadsHeading, 0},
  };
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  for (const auto& line : lines) qel::FormatToStream(stream, line.format, line.figure);
#pragma GCC diagnostic pop
}

}  // namespace

void CQelSystemBenchmark::LogOutResult(const char* message, const wchar_t* title, unsigned long value) {
  qel::Guarded(QEL_HERE, [&] {
    qel::NamedLogMutex mutex(QEL_HERE, qel::channel::kBenchmarkReport.mutexStem);
    if (!mutex.Exists() || !mutex.Acquire(qel::kLogMutexTimeoutMs)) return;
    wchar_t path[MAX_PATH];
    if (!PathCombineW(path, VemoGetLogPath(), qel::channel::kBenchmarkReport.fileName)) return;
    WIN32_FIND_DATAW found;
    DWORD findError;
    if (GetFileSizeX(path, &found, &findError) > qel::kChannelLimitBytes) return;
    const qel::ScopedStream stream(_wfopen(path, L"at"));
    if (!stream) return;

    SYSTEMTIME now{};
    GetLocalTime(&now);
    qel::FormatToStream(stream.get(), qel::layout::kBenchmarkHeading);
    PrintTime(stream.get(), now);
    qel::FormatToStream(stream.get(), qel::layout::kStatusBannerLine);
    PrintFigures(stream.get(), m_result);
    for (long threads = 1; threads < m_threadRateCount; ++threads)
      qel::FormatToStream(stream.get(), "numThreads=%d/%d        = %5.2f Mbyte/sec \n", static_cast<int>(threads),
                          static_cast<int>(m_threadRateCount - 1), m_threadRates[threads]);
    qel::FormatToStream(stream.get(), qel::layout::kBenchmarkErrorHeading);
    qel::FormatToStream(stream.get(), "Line = %06d,LastErrNum = %6d\n", m_errorLine, static_cast<int>(m_errorNumber));
    qel::FormatToStream(stream.get(), qel::layout::kBenchmarkStampHeading);
    PrintTime(stream.get(), m_result.localTime);
    CStrCnv narrowTitle(title);
    qel::FormatToStream(stream.get(), "%s(%s), %lu\n", title ? narrowTitle.Narrow() : "", message ? message : "",
                        value);
  });
}
