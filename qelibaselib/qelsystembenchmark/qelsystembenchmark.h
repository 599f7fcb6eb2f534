/// @file
/// How fast this machine moves image-sized data: plain memory, mapped temporary files, and a parallel pixel loop.
///
///     CQelSystemBenchmark benchmark;
///     const T_RESULT result = benchmark.OverAll();
///     benchmark.LogOutResult("after start-up", L"MyProduct", 0);
#pragma once
#include "qelibaselib/base/export.h"

enum E_BENCH_ACCESSTYPE { E_BENCH_SEQUENTIAL = 0, E_BENCH_RANDOM = 1 };
enum E_BENCH_READWRITE { E_BENCH_READ = 0, E_BENCH_WRITE = 1, E_BENCH_READ_AND_WRITE = 2 };

/// Figures in MiB (1,048,576 bytes) a second; 0 where nothing was measured.
struct T_RESULT {
  double memorySequentialRead, memorySequentialWrite, memorySequentialReadWrite;
  double memoryRandomRead, memoryRandomWrite, memoryRandomReadWrite;
  double mappedSequentialRead, mappedSequentialWrite, mappedSequentialReadWrite;
  double mappedRandomRead, mappedRandomWrite, mappedRandomReadWrite;
  SYSTEMTIME localTime;  ///< when OverAll began
};

#ifdef QEL_CLASSES
/// Measures how fast this machine moves image-sized data. One object belongs to one thread. Nothing throws: a
/// measurement that fails gives 0 and a line in the assertion channel.
class QEL_CLASS CQelSystemBenchmark {
 public:
  /// Five timed runs of 16 MiB, as many threads as the process may use processors, and a temporary file in the folder
  /// that VemoSetTmpPath has set before.
  CQelSystemBenchmark();
  CQelSystemBenchmark(const CQelSystemBenchmark& other);
  CQelSystemBenchmark& operator=(const CQelSystemBenchmark&) = delete;
  virtual ~CQelSystemBenchmark();

  /// Forgets all figures and errors; the settings stay.
  void Clear();

  /// The mean rate over the timed runs, in MiB a second: memory, or with `useMappedFile` other than 0 views of the
  /// temporary file, which is gone again afterwards. The thread runs time-critical meanwhile. 0 when a buffer cannot be
  /// had, and for a mapped file that is only read or only written: it is mapped for both, which the system refuses.
  double GetMemTransferRate(E_BENCH_ACCESSTYPE access, E_BENCH_READWRITE readWrite, int useMappedFile);

  /// Times the pixel loop with 1 to m_maximumThreads threads into m_threadRates. Ends before the first count that the
  /// system cannot start, with a line in the assertion channel; the figures from there on are 0.
  void CheckOmpPerformanceRate();

  /// Measures memory and mapped file, sequential read and write, then the pixel loop. The other figures stay as they
  /// are.
  virtual T_RESULT OverAll();

  /// Appends a report to "QelSystemBenchmark.txt" in the log folder, under a mutex of its own. `message` (narrow) and
  /// `title` may be null; with `value` they are printed in its last section. Without the mutex or the file, and
  /// when the file is longer than 1 MiB, nothing is written.
  virtual void LogOutResult(const char* message, const wchar_t* title, unsigned long value);

  unsigned long m_iterations;         ///< timed runs behind each figure
  unsigned long m_bufferBytes;        ///< for memory and mapped files, a multiple of 4
  long m_maximumThreads;              ///< of the pixel loop; 0 measures nothing
  wchar_t m_temporaryFile[MAX_PATH];  ///< a second buffer uses the same name with ".2" behind it
  T_RESULT m_result;
  double* m_threadRates;  ///< owned: m_maximumThreads + 1 figures as of the last measurement, the first 0; or null

 private:
  void MeasureThreads(unsigned char* source, unsigned char* destination);
  void RefuseThreads(long threads, unsigned long error);
  void RememberError(int line, unsigned long error);

  long m_threadRateCount;
  int m_errorLine;
  unsigned long m_errorNumber;
};
#else
using CQelSystemBenchmark = qel::ClassOfAnotherCompiler<struct T_QelSystemBenchmarkTag>;
#endif
