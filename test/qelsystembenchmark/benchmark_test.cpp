#include <fstream>
#include <new>
#include <sstream>

#include "test/support/library.h"

namespace {

using namespace qel::test;

class Benchmark : public testing::Test {
 protected:
  Benchmark() {
    TakeMessages(qel::channel::kAssert);
    std::filesystem::remove(ChannelFile(qel::channel::kBenchmarkReport));
    benchmark_.m_iterations = 2;
    benchmark_.m_bufferBytes = 1 << 20;
    benchmark_.m_maximumThreads = 2;
    std::wcscpy(benchmark_.m_temporaryFile, folder_.Wide("bench.tmp").c_str());
  }
  size_t FilesLeft() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder_.Path()), {}));
  }
  ScratchFolder folder_;
  CQelSystemBenchmark benchmark_;
};

TEST_F(Benchmark, EveryMemoryKernelGivesARate) {
  for (auto access : {E_BENCH_SEQUENTIAL, E_BENCH_RANDOM})
    for (auto readWrite : {E_BENCH_READ, E_BENCH_WRITE, E_BENCH_READ_AND_WRITE})
      EXPECT_GT(benchmark_.GetMemTransferRate(access, readWrite, 0), 0) << access << readWrite;
  EXPECT_TRUE(TakeMessages(qel::channel::kAssert).empty());
}

TEST_F(Benchmark, MappedFilesAreOpenedForWhatIsMeasuredAndGoneAfterwards) {
  std::vector<DWORD> accesses;
  {
    auto create =
        WATCH_CALL(CreateFileW, [&](LPCWSTR name, DWORD access, DWORD share, auto, DWORD disposition, auto, auto) {
          if (!std::wcsstr(name, L"bench.tmp")) return;
          accesses.push_back(access);
          EXPECT_EQ(share, DWORD{FILE_SHARE_READ});
          EXPECT_EQ(disposition, DWORD{CREATE_ALWAYS});
        });
    EXPECT_GT(benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ_AND_WRITE, 1), 0);
    EXPECT_GT(benchmark_.GetMemTransferRate(E_BENCH_RANDOM, E_BENCH_READ_AND_WRITE, 1), 0);
    EXPECT_EQ(accesses, std::vector<DWORD>(4, GENERIC_READ | GENERIC_WRITE));
    accesses.clear();
    // A mapping for both needs a file that was opened for both.
    EXPECT_EQ(benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ, 1), 0);
    EXPECT_EQ(benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_WRITE, 1), 0);
    EXPECT_EQ(accesses, (std::vector<DWORD>{GENERIC_READ, GENERIC_WRITE}));
  }
  EXPECT_EQ(TakeMessages(qel::channel::kAssert).size(), 4u);  // for each: the clause and the mark of its report
  EXPECT_EQ(FilesLeft(), 0u);
}

TEST_F(Benchmark, TheReportNamesTheErrorOfTheStepThatFailed) {
  const auto error = [this] {
    std::filesystem::remove(ChannelFile(qel::channel::kBenchmarkReport));
    benchmark_.LogOutResult("", L"", 0);
    const auto text = ReadWholeFile(ChannelFile(qel::channel::kBenchmarkReport));
    EXPECT_EQ(text.find("Line = 000000"), std::string::npos) << "the step's line";
    return text.substr(text.find("LastErrNum = "), 19);
  };
  std::wcscpy(benchmark_.m_temporaryFile, folder_.Wide("missing/bench.tmp").c_str());
  benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ_AND_WRITE, 1);
  EXPECT_EQ(error(), "LastErrNum =      3");
  std::wcscpy(benchmark_.m_temporaryFile, folder_.Wide("bench.tmp").c_str());
  benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ, 1);
  EXPECT_EQ(error(), "LastErrNum =      5");
  benchmark_.m_bufferBytes = 0xFFFFFFF0;
  benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ, 0);
  EXPECT_EQ(error(), "LastErrNum =      8");
  {
    const auto start = FAIL_CALL(CreateThread, 1, ERROR_NO_SYSTEM_RESOURCES, nullptr);
    benchmark_.CheckOmpPerformanceRate();
  }
  EXPECT_EQ(error(), "LastErrNum =   1450");
  {
    const auto fail = +[](std::size_t, const std::nothrow_t&) noexcept -> void* { return nullptr; };
    const ReplaceCall allocate("_ZnwjRKSt9nothrow_t", fail);
    benchmark_.CheckOmpPerformanceRate();
  }
  EXPECT_EQ(error(), "LastErrNum =      8");
  EXPECT_EQ(benchmark_.m_threadRates[2], 0);
  EXPECT_EQ(TakeMessages(qel::channel::kAssert).back().find("threads=2/2") != std::string::npos, true);
}

TEST_F(Benchmark, ThePriorityIsRaisedForTheMeasurementAndPutBack) {
  std::vector<int> priorities;
  auto set = WATCH_CALL(SetThreadPriority, [&](HANDLE, int priority) { priorities.push_back(priority); });
  benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ, 0);
  EXPECT_EQ(priorities, (std::vector<int>{THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_NORMAL}));
  priorities.clear();
  std::wcscpy(benchmark_.m_temporaryFile, folder_.Wide("missing/bench.tmp").c_str());
  EXPECT_EQ(benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ_AND_WRITE, 1), 0);
  EXPECT_EQ(priorities, (std::vector<int>{THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_NORMAL}));
  TakeMessages(qel::channel::kAssert);
}

TEST_F(Benchmark, ThreadCountsFromOneToTheMaximum) {
  {
    std::atomic<int> ofOtherThreads = 0;
    const DWORD own = GetCurrentThreadId();
    auto set = WATCH_CALL(SetThreadPriority, [&](HANDLE, int priority) {
      ofOtherThreads += GetCurrentThreadId() != own && priority == THREAD_PRIORITY_TIME_CRITICAL;
    });
    benchmark_.CheckOmpPerformanceRate();
    EXPECT_GT(ofOtherThreads, 0);
  }
  ASSERT_NE(benchmark_.m_threadRates, nullptr);
  EXPECT_EQ(benchmark_.m_threadRates[0], 0);
  EXPECT_GT(benchmark_.m_threadRates[1], 0);
  EXPECT_GT(benchmark_.m_threadRates[2], 0);

  const CQelSystemBenchmark copy(benchmark_);
  EXPECT_NE(copy.m_threadRates, benchmark_.m_threadRates);
  EXPECT_EQ(copy.m_threadRates[2], benchmark_.m_threadRates[2]);

  benchmark_.m_maximumThreads = 0;
  benchmark_.CheckOmpPerformanceRate();
  ASSERT_NE(benchmark_.m_threadRates, nullptr);
  EXPECT_EQ(benchmark_.m_threadRates[0], 0);
  benchmark_.Clear();
  EXPECT_EQ(benchmark_.m_threadRates, nullptr);
}

TEST_F(Benchmark, ARunThatTheClockCannotSeeCountsAsNothing) {
  auto counter = STAND_IN(QueryPerformanceCounter, [](int, LARGE_INTEGER* count) {
    count->QuadPart = 1000;
    return TRUE;
  });
  EXPECT_EQ(benchmark_.GetMemTransferRate(E_BENCH_SEQUENTIAL, E_BENCH_READ, 0), 0);
}

TEST_F(Benchmark, OverAllFillsItsTwoFiguresAndTheTime) {
  const T_RESULT result = benchmark_.OverAll();
  EXPECT_GT(result.memorySequentialReadWrite, 0);
  EXPECT_GT(result.mappedSequentialReadWrite, 0);
  EXPECT_EQ(result.memorySequentialRead, 0);
  EXPECT_EQ(result.mappedRandomReadWrite, 0);
  EXPECT_GE(result.localTime.wYear, 2024);
}

TEST_F(Benchmark, TheReportHasItsLinesInOrder) {
  benchmark_.m_result = {1, 2.25, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12.5, {2024, 3, 2, 5, 14, 7, 9, 42}};
  benchmark_.CheckOmpPerformanceRate();
  benchmark_.m_threadRates[1] = 100;
  benchmark_.m_threadRates[2] = 200.5;
  benchmark_.LogOutResult("message", L"title", 7);
  std::istringstream text(ReadWholeFile(ChannelFile(qel::channel::kBenchmarkReport)));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 25u);
  EXPECT_EQ(lines[1].size(), 24u);
  lines.erase(lines.begin() + 1);  // the present time
  const std::vector<std::string> expected = {
      "##### SystemBenchmark",
      "#####",
      "======================= BenchMark of Memory =======================",
      "Memory - Sequential Read        =  1.00 Mbyte/sec ",
      "Memory - Sequential Write       =  2.25 Mbyte/sec ",
      "Memory - Sequential ReadWrite   =  3.00 Mbyte/sec ",
      "Memory - Random     Read        =  4.00 Mbyte/sec ",
      "Memory - Random     Write       =  5.00 Mbyte/sec ",
      "Memory - Random     ReadWrite   =  6.00 Mbyte/sec ",
      "======================= BenchMark of MMF    =======================",
      "MMF    - Sequential Read        =  7.00 Mbyte/sec ",
      "MMF    - Sequential Write       =  8.00 Mbyte/sec ",
      "MMF    - Sequential ReadWrite   =  9.00 Mbyte/sec ",
      "MMF    - Random     Read        = 10.00 Mbyte/sec ",
      "MMF    - Random     Write       = 11.00 Mbyte/sec ",
      "MMF\t - Random     ReadWrite   = 12.50 Mbyte/sec ",
      "======================= BenchMark of OMP    =======================",
      "numThreads=1/2        = 100.00 Mbyte/sec ",
      "numThreads=2/2        = 200.50 Mbyte/sec ",
      "=======ErrLog=======",
      "Line = 000000,LastErrNum =      0",
      "=======TimeStamp=======",
      "2024/03/05 14:07:09.042",
      "title(message), 7",
  };
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(lines[i], expected[i] + "\r");

  const auto file = ChannelFile(qel::channel::kBenchmarkReport);
  benchmark_.LogOutResult(nullptr, nullptr, 8);
  EXPECT_TRUE(ReadWholeFile(file).ends_with("\r\n(), 8\r\n"));
  {
    const auto mutex = FAIL_CALL(CreateMutexW, 1, ERROR_ACCESS_DENIED, nullptr);
    benchmark_.LogOutResult("lost", L"title", 7);
    EXPECT_EQ(ReadWholeFile(file).find("lost"), std::string::npos);
  }
  for (const size_t bytes : {qel::kChannelLimitBytes, qel::kChannelLimitBytes + 1}) {
    SCOPED_TRACE(bytes);
    std::filesystem::resize_file(file, bytes);
    benchmark_.LogOutResult("message", L"title", 7);
    EXPECT_EQ(std::filesystem::file_size(file) > bytes, bytes == qel::kChannelLimitBytes);
  }
}

}  // namespace
