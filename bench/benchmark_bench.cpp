// The benchmark class: its figures against those of a plain loop, which say whether they are the machine's.
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

constexpr size_t kBytes = 16 << 20, kWords = kBytes / sizeof(unsigned);
constexpr int kRuns = 5;

struct Words {
  std::unique_ptr<unsigned[]> words{new unsigned[kWords]};
  Words() { mlock(words.get(), kBytes); }
  Words(const Words&) = delete;
  Words& operator=(const Words&) = delete;
  ~Words() { munlock(words.get(), kBytes); }
};

using Loop = void (*)(unsigned* first, unsigned* second, size_t count);

// MiB a second, the mean of some runs over fresh memory that was touched before.
double PlainRate(Loop loop, bool needsSecond) {
  const Words first;
  const std::unique_ptr<Words> second(needsSecond ? new Words : nullptr);
  double sum = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::fill_n(first.words.get(), kWords, 0);
    if (second) std::fill_n(second->words.get(), kWords, 0);
    const auto start = std::chrono::steady_clock::now();
    loop(first.words.get(), second ? second->words.get() : nullptr, kWords);
    sum += kBytes / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  return sum / kRuns / (1 << 20);
}

// One word after the other, as many as there are at run time: with a constant count the compiler takes four at once,
// which measures the machine's widest move and not its word loop.
__attribute__((noipa)) void Read(unsigned* first, unsigned*, size_t count) {
  unsigned sum = 0;
  for (size_t i = 0; i < count; ++i) sum += first[i];
  bench::Keep(sum);
}
__attribute__((noipa)) void Write(unsigned* first, unsigned*, size_t count) {
  for (size_t i = 0; i < count; ++i) first[i] = static_cast<unsigned>(i);
}
__attribute__((noipa)) void Copy(unsigned* first, unsigned* second, size_t count) {
  for (size_t i = 0; i < count; ++i) second[i] = first[i];
}

}  // namespace

BENCHMARK_GROUP(benchmark) {
  CQelSystemBenchmark benchmark;
  benchmark.m_iterations = kRuns;
  benchmark.m_bufferBytes = kBytes;
  const struct {
    const char* what;
    E_BENCH_READWRITE readWrite;
    Loop loop;
  } rows[] = {{"GetMemTransferRate, sequential read", E_BENCH_READ, &Read},
              {"GetMemTransferRate, sequential write", E_BENCH_WRITE, &Write},
              {"GetMemTransferRate, sequential copy", E_BENCH_READ_AND_WRITE, &Copy}};
  for (const auto& row : rows) {
    bench::CompareFigures(
        row.what, "MiB/s", 0.8, 1.25,
        [&] { return benchmark.GetMemTransferRate(E_BENCH_SEQUENTIAL, row.readWrite, 0); },
        [&] { return PlainRate(row.loop, row.readWrite == E_BENCH_READ_AND_WRITE); });
  }
}
