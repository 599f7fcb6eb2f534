#include "demo/image.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "qelibaselib/qelibaselib.h"

#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_STDIO
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#define STBI_ONLY_BMP
#define STBI_ONLY_PNM
#define STB_IMAGE_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#include <stb_image.h>
#pragma GCC diagnostic pop

namespace {

constexpr DWORD kBudgetMs = 3000, kIntervalMs = 300;
constexpr int kLargestSide = 16384;

// Reads a whole file into a block of the library's allocator.
class FileContents {
 public:
  explicit FileContents(const std::wstring& path) {
    HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr, kBudgetMs, kIntervalMs);
    if (file == INVALID_HANDLE_VALUE) return;
    LARGE_INTEGER size{};
    if (GetFileSizeEx(file, &size) && size.QuadPart > 0 && size.QuadPart < (256 << 20)) {
      bytes_ = static_cast<unsigned char*>(_MemAlloc(__FILE__, __LINE__, static_cast<DWORD>(size.QuadPart), kBudgetMs));
      if (bytes_ && !ReadFileX(__LINE__, __FILE__, file, bytes_, static_cast<DWORD>(size.QuadPart), &size_, nullptr))
        size_ = 0;
    }
    CloseHandle(file);
  }
  FileContents(const FileContents&) = delete;
  FileContents& operator=(const FileContents&) = delete;
  ~FileContents() { _MemFree(__FILE__, __LINE__, bytes_); }
  const unsigned char* bytes() const { return bytes_; }
  int size() const { return static_cast<int>(size_); }

 private:
  unsigned char* bytes_ = nullptr;
  DWORD size_ = 0;
};

void Store16(unsigned char* at, unsigned value) { at[0] = value & 0xFF, at[1] = (value >> 8) & 0xFF; }
void Store32(unsigned char* at, unsigned value) { Store16(at, value & 0xFFFF), Store16(at + 2, value >> 16); }

}  // namespace

bool LoadImage24(const std::wstring& path, Image& image) {
  const FileContents file(path);
  if (file.size() == 0) return false;
  int width = 0, height = 0, channels = 0;
  if (!stbi_info_from_memory(file.bytes(), file.size(), &width, &height, &channels)) return false;
  if (width > kLargestSide || height > kLargestSide) return false;
  unsigned char* pixels = stbi_load_from_memory(file.bytes(), file.size(), &width, &height, &channels, 3);
  if (!pixels) return false;
  image = {width, height, {pixels, pixels + static_cast<size_t>(width) * static_cast<size_t>(height) * 3}};
  stbi_image_free(pixels);
  return true;
}

bool SaveBmp(const std::wstring& path, const Image& image) {
  constexpr unsigned kHeaderBytes = 54;
  const unsigned rowBytes = (static_cast<unsigned>(image.width) * 3 + 3) & ~3u;
  std::vector<unsigned char> file(kHeaderBytes + rowBytes * static_cast<unsigned>(image.height));
  file[0] = 'B', file[1] = 'M';
  Store32(&file[2], static_cast<unsigned>(file.size()));
  Store32(&file[10], kHeaderBytes);
  Store32(&file[14], 40);
  Store32(&file[18], static_cast<unsigned>(image.width));
  Store32(&file[22], static_cast<unsigned>(image.height));
  Store16(&file[26], 1);
  Store16(&file[28], 24);
  for (int y = 0; y < image.height; ++y) {
    const unsigned char* from = &image.pixels[static_cast<size_t>(y) * static_cast<size_t>(image.width) * 3];
    unsigned char* to = &file[kHeaderBytes + rowBytes * static_cast<unsigned>(image.height - 1 - y)];
    for (int x = 0; x < image.width; ++x)
      for (int c = 0; c < 3; ++c) to[x * 3 + c] = from[x * 3 + 2 - c];
  }
  HANDLE target = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr, kBudgetMs, kIntervalMs);
  if (target == INVALID_HANDLE_VALUE) return false;
  DWORD written = 0;
  const BOOL saved =
      WriteFileX(__LINE__, __FILE__, target, file.data(), static_cast<DWORD>(file.size()), &written, nullptr);
  CloseHandle(target);
  return saved && written == file.size();
}

Image MakeImage(int width, int height, int seed) {
  Image image{width, height, std::vector<unsigned char>(static_cast<size_t>(width) * static_cast<size_t>(height) * 3)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 3; ++c) {
        const double wave = std::sin(x * 0.013 * (c + 1) + seed) + std::cos(y * 0.017 * (3 - c) + seed * 2.0);
        image.pixels[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3 +
                     static_cast<size_t>(c)] = static_cast<unsigned char>(127.5 + 63.0 * wave);
      }
  return image;
}

int Filter(const Image& source, Image& target) {
  target = source;
  const int threads = VemoOMPGetNumThreadsCheckImgSize(static_cast<int>(source.pixels.size()), 0);
  const int stride = source.width * 3;
#pragma omp parallel for schedule(static) num_threads(threads)
  for (int y = 1; y < source.height - 1; ++y) {
    for (int i = 3; i < stride - 3; ++i) {
      const unsigned char* at =
          &source.pixels[static_cast<size_t>(y) * static_cast<size_t>(stride) + static_cast<size_t>(i)];
      int sum = 0;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -3; dx <= 3; dx += 3) sum += at[dy * stride + dx];
      const int smooth = sum / 9;
      target.pixels[static_cast<size_t>(y) * static_cast<size_t>(stride) + static_cast<size_t>(i)] =
          static_cast<unsigned char>(std::clamp(smooth + (at[0] - smooth) * 3 / 2, 0, 255));
    }
  }
  return threads;
}
