// An image in memory, read and written through the library, and the filter that the demo runs.
#pragma once
#include <string>
#include <vector>

struct Image {
  int width = 0, height = 0;
  std::vector<unsigned char> pixels;  // 24 bits each, red first
};

// False when the file cannot be read or holds no image that is understood (PNG, JPEG, BMP, PNM).
bool LoadImage24(const std::wstring& path, Image& image);
bool SaveBmp(const std::wstring& path, const Image& image);
Image MakeImage(int width, int height, int seed);
// Smooths and sharpens again, rows in parallel, with as many threads as the library's policy gives for this size.
// Returns that number.
int Filter(const Image& source, Image& target);
