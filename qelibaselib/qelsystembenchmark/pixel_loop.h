/// @file
/// The parallel pixel loop.
#pragma once

namespace qel {

inline constexpr int kImageRows = 1536;
inline constexpr int kImageColumns = 1024;
inline constexpr int kBytesOfPixel = 3;
inline constexpr int kImageBytes = kImageRows * kImageColumns * kBytesOfPixel;

/// Runs the loop once with this many threads over two images of kImageBytes. A fault inside is written to the assertion
/// channel and leaves as a COmpException.
void RunPixelLoop(const unsigned char* source, unsigned char* destination, int threads);

}  // namespace qel
