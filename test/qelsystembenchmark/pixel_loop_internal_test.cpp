// What the measured loops do to their buffers.
#include "qelibaselib/guard/omp_exception.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/qelsystembenchmark/benchmark_buffer.h"
#include "qelibaselib/qelsystembenchmark/pixel_loop.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

using Image = std::vector<unsigned char>;
constexpr size_t kRowBytes = kImageColumns * kBytesOfPixel;

Image MadeImage() {
  Image image(kImageBytes);
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<unsigned char>(i * 7 + i / 251 + 1);
  return image;
}

TEST(PixelLoop, MovesTheStartOfEachRow) {
  const Image source = MadeImage();
  Image expected(kImageBytes, 0xEE);
  for (size_t row = 0; row < kImageRows; ++row) {
    const size_t base = row * kRowBytes;
    // Each byte is written up to three times; the last pixel's three stay as that pixel leaves them.
    for (size_t i = 0; i < kImageColumns; ++i) expected[base + i] = source[base + i + 2];
    expected[base + kImageColumns] = source[base + kImageColumns];
    expected[base + kImageColumns + 1] = source[base + kImageColumns - 1];
  }
  for (const int threads : {1, 3}) {
    Image destination(kImageBytes, 0xEE);
    RunPixelLoop(source.data(), destination.data(), threads);
    EXPECT_TRUE(destination == expected) << threads;
  }
}

TEST(PixelLoop, TurnsAFaultIntoItsExceptionAndALine) {
  TakeMessages(channel::kAssert);
  Image destination(kImageBytes);
  EXPECT_THROW(RunPixelLoop(static_cast<const unsigned char*>(nullptr), destination.data(), 2), COmpException);
  const auto messages = TakeMessages(channel::kAssert);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_NE(messages[0].find("OMP_END_FOR CATCH_SE"), std::string::npos) << messages[0];
}

TEST(BenchmarkKernels, ReadWriteCopiesAllWords) {
  constexpr DWORD kBytes = 40'000;
  for (const auto access : {E_BENCH_SEQUENTIAL, E_BENCH_RANDOM}) {
    BenchmarkBuffer first(kBytes), second(kBytes);
    first.Reset();
    second.Reset();
    EXPECT_EQ(first.words()[first.count() - 1], 0xFFFFFFFF);
    EXPECT_EQ(first.words()[first.count() - 2], 0u);
    for (DWORD i = 0; i < first.count(); ++i) first.words()[i] = i * 3 + 1;
    ChooseKernel(access, E_BENCH_READ_AND_WRITE)(first, &second);
    EXPECT_TRUE(std::equal(first.words(), first.words() + first.count(), second.words())) << access;
    ChooseKernel(access, E_BENCH_WRITE)(first, nullptr);
    for (const DWORD i : {DWORD{0}, DWORD{1}, first.count() - 1}) EXPECT_EQ(first.words()[i], i) << access;
  }
}

}  // namespace
}  // namespace qel::test
