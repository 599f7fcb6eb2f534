#include "qelibaselib/qelsystembenchmark/qelsystembenchmark.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "qelibaselib/base/delta_time.h"
#include "qelibaselib/base/format.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/qelsystembenchmark/benchmark_buffer.h"
#include "qelibaselib/qelsystembenchmark/failed_step.h"
#include "qelibaselib/qelsystembenchmark/pixel_loop.h"
#include "qelibaselib/qelsystembenchmark/thread_priority_scope.h"
#include "qelibaselib/qelsystembenchmark/thread_supply.h"
#include "qelibaselib/settings/processor.h"
#include "qelibaselib/settings/settings.h"

namespace {

constexpr unsigned long kDefaultIterations = 5;
constexpr unsigned long kDefaultBufferBytes = 16ul << 20;
constexpr wchar_t kTemporaryFileName[] = L"QelSystemBenchmark.tmp";
constexpr wchar_t kSecondSuffix[] = L".2";
constexpr double kSecondsOfMicrosecond = 0.001 * 0.001;
constexpr double kMiBOfByte = 9.5367431640625e-7;
constexpr double kShortestRunSeconds = 1e-9;

/// Bytes a second of one timed run; a run too short to time counts as 0.
double RateOfRun(double microseconds, DWORD words) {
  const double seconds = microseconds * kSecondsOfMicrosecond;
  if (std::fabs(seconds) < kShortestRunSeconds) return 0;
  const DWORD bytes = words * sizeof(DWORD);
  return bytes / seconds;
}

DWORD AccessFor(E_BENCH_READWRITE readWrite) {
  if (readWrite == E_BENCH_READ) return GENERIC_READ;
  return readWrite == E_BENCH_WRITE ? GENERIC_WRITE : GENERIC_READ | GENERIC_WRITE;
}

struct FreeWithRuntime {
  void operator()(void* block) const { std::free(block); }
};
using ImageBuffer = std::unique_ptr<unsigned char, FreeWithRuntime>;
ImageBuffer AllocateImage() {
  auto* block = static_cast<unsigned char*>(std::malloc(qel::kImageBytes));
  if (block) std::memset(block, 0, qel::kImageBytes);
  return ImageBuffer(block);
}

}  // namespace

CQelSystemBenchmark::CQelSystemBenchmark()
    : m_iterations(kDefaultIterations),
      m_bufferBytes(kDefaultBufferBytes),
      m_maximumThreads(static_cast<long>(VemoGetCPUCount())),
      m_temporaryFile{},
      m_result{},
      m_threadRates(nullptr),
      m_threadRateCount(0),
      m_errorLine(0),
      m_errorNumber(0) {
  qel::Guarded(QEL_HERE, [&] { PathCombineW(m_temporaryFile, VemoGetTmpPath(), kTemporaryFileName); });
}

CQelSystemBenchmark::CQelSystemBenchmark(const CQelSystemBenchmark& other)
    : m_iterations(other.m_iterations),
      m_bufferBytes(other.m_bufferBytes),
      m_maximumThreads(other.m_maximumThreads),
      m_result(other.m_result),
      m_threadRates(nullptr),
      m_threadRateCount(0),
      m_errorLine(other.m_errorLine),
      m_errorNumber(other.m_errorNumber) {
  std::memcpy(m_temporaryFile, other.m_temporaryFile, sizeof m_temporaryFile);
  if (!other.m_threadRates) return;
  m_threadRates = new (std::nothrow) double[static_cast<size_t>(other.m_threadRateCount)];
  if (!m_threadRates) return;
  m_threadRateCount = other.m_threadRateCount;
  std::memcpy(m_threadRates, other.m_threadRates, static_cast<size_t>(m_threadRateCount) * sizeof(double));
}

CQelSystemBenchmark::~CQelSystemBenchmark() { delete[] m_threadRates; }

void CQelSystemBenchmark::Clear() {
  m_result = {};
  delete[] m_threadRates;
  m_threadRates = nullptr;
  m_threadRateCount = 0;
  m_errorLine = 0;
  m_errorNumber = 0;
}

void CQelSystemBenchmark::RememberError(int line, unsigned long error) {
  m_errorLine = line;
  m_errorNumber = error;
}

double CQelSystemBenchmark::GetMemTransferRate(E_BENCH_ACCESSTYPE access, E_BENCH_READWRITE readWrite,
                                               int useMappedFile) {
  double rate = 0;
  DWORD error = ERROR_SUCCESS;
  const bool measured = qel::Guarded(QEL_HERE, [&] {
    const qel::TimeCriticalScope priority;
    wchar_t secondFile[MAX_PATH + std::size(kSecondSuffix)];
    std::wcscpy(secondFile, m_temporaryFile);
    std::wcscat(secondFile, kSecondSuffix);
    std::optional<qel::BenchmarkBuffer> first, second;
    const qel::FailedStepError noteError(error);
    const auto prepare = [&](std::optional<qel::BenchmarkBuffer>& buffer, const wchar_t* file) {
      if (useMappedFile)
        buffer.emplace(m_bufferBytes, file, AccessFor(readWrite));
      else
        buffer.emplace(m_bufferBytes);
    };
    prepare(first, m_temporaryFile);
    if (access == E_BENCH_RANDOM || readWrite == E_BENCH_READ_AND_WRITE) prepare(second, secondFile);

    const qel::BenchmarkKernel kernel = qel::ChooseKernel(access, readWrite);
    double sum = 0;
    for (unsigned long run = 0; run < m_iterations; ++run) {
      first->Reset();
      if (second) second->Reset();
      const CDeltaTime time;
      kernel(*first, second ? &*second : nullptr);
      sum += RateOfRun(time.ElapsedUs(), first->count());
    }
    if (m_iterations > 0) rate = sum / m_iterations * kMiBOfByte;
  });
  if (!measured) RememberError(__LINE__, error);
  return rate;
}

void CQelSystemBenchmark::CheckOmpPerformanceRate() {
  DWORD error = ERROR_SUCCESS;
  const bool measured = qel::Guarded(QEL_HERE, [&] {
    const qel::TimeCriticalScope priority;
    const ImageBuffer source = AllocateImage(), destination = AllocateImage();
    delete[] m_threadRates;
    m_threadRates = nullptr;
    m_threadRateCount = 0;
    const long count = (m_maximumThreads > 0 ? m_maximumThreads : 0) + 1;
    m_threadRates = new (std::nothrow) double[static_cast<size_t>(count)]();
    if (!source || !destination || !m_threadRates) return RememberError(__LINE__, ERROR_NOT_ENOUGH_MEMORY);
    const qel::FailedStepError noteError(error);
    m_threadRateCount = count;
    MeasureThreads(source.get(), destination.get());
  });
  if (!measured) RememberError(__LINE__, error);
}

void CQelSystemBenchmark::MeasureThreads(unsigned char* source, unsigned char* destination) {
  for (long threads = 1; threads < m_threadRateCount; ++threads) {
    if (threads > 1 && !qel::CanStartThreads()) return RefuseThreads(threads, GetLastError());
    double& rate = m_threadRates[threads];
    qel::RunPixelLoop(source, destination, 1);  // warms caches and clock, not timed
    for (unsigned long run = 0; run < m_iterations; ++run) {
      const CDeltaTime time;
      qel::RunPixelLoop(source, destination, static_cast<int>(threads));
      const double microseconds = time.ElapsedUs();
      if (microseconds > 0) rate += qel::kImageBytes / (microseconds * 0.001 * 0.001) * kMiBOfByte;
    }
    if (m_iterations != 0) rate /= m_iterations;
  }
}

void CQelSystemBenchmark::RefuseThreads(long threads, unsigned long error) {
  RememberError(__LINE__, error);
  char text[64];
  qel::FormatText(text, sizeof text, "threads=%ld/%ld, lec=%lu", threads, m_threadRateCount - 1, error);
  qel::WriteAssertion(QEL_HERE, text);
}

T_RESULT CQelSystemBenchmark::OverAll() {
  qel::Guarded(QEL_HERE, [&] {
    GetLocalTime(&m_result.localTime);
    m_result.memorySequentialReadWrite = GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ_AND_WRITE, 0);
    m_result.mappedSequentialReadWrite = GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ_AND_WRITE, 1);
    CheckOmpPerformanceRate();
  });
  return m_result;
}
