// Mappings, bulk transfers, object files.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

constexpr size_t kChunk = 16 << 20;

int Create(const char* path, size_t size) {
  const int file = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fallocate(file, 0, 0, static_cast<off_t>(size)) != 0) std::abort();
  return file;
}
char* Map(int file, int protection, size_t offset, size_t size) {
  return static_cast<char*>(mmap(nullptr, size, protection, MAP_SHARED, file, static_cast<off_t>(offset)));
}

void MemoryToMappedFile(const char* data, size_t size, const char* path) {
  const int file = Create(path, size);
  for (size_t offset = 0; offset < size; offset += kChunk) {
    const size_t part = std::min(kChunk, size - offset);
    char* view = Map(file, PROT_READ | PROT_WRITE, offset, part);
    std::memcpy(view, data + offset, part);
    munmap(view, part);
  }
  close(file);
}

// From a named object, which is opened and viewed in chunks: it may be larger than the address space.
void ObjectToMappedFile(const char* object, size_t size, const char* path) {
  const int from = shm_open(object, O_RDONLY | O_CLOEXEC, 0);
  const int to = Create(path, size);
  for (size_t offset = 0; offset < size; offset += kChunk) {
    const size_t part = std::min(kChunk, size - offset);
    char* sourceView = Map(from, PROT_READ, offset, part);
    char* view = Map(to, PROT_READ | PROT_WRITE, offset, part);
    std::memcpy(view, sourceView, part);
    munmap(sourceView, part);
    munmap(view, part);
  }
  close(to);
  close(from);
}

void CopyMapped(const char* source, const char* target, bool mapSource) {
  const int from = open(source, O_RDONLY | O_CLOEXEC);
  struct stat status;
  fstat(from, &status);
  const size_t size = static_cast<size_t>(status.st_size);
  const int to = Create(target, size);
  std::vector<char> buffer(mapSource ? 0 : kChunk);
  for (size_t offset = 0; offset < size; offset += kChunk) {
    const size_t part = std::min(kChunk, size - offset);
    char* view = Map(to, PROT_READ | PROT_WRITE, offset, part);
    if (mapSource) {
      char* sourceView = Map(from, PROT_READ, offset, part);
      std::memcpy(view, sourceView, part);
      munmap(sourceView, part);
    } else {
      if (read(from, buffer.data(), part) != static_cast<ssize_t>(part)) std::abort();
      std::memcpy(view, buffer.data(), part);
    }
    munmap(view, part);
  }
  close(to);
  close(from);
}

void WriteWhole(const char* data, size_t size, const char* path) {
  const int file = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
  close(file);
}

void CompareMappings() {
  const std::wstring wide = bench::WidePath("mapped");
  const std::vector<char> contents(1 << 20, 'm');
  Mem2File(1, "b.cpp", contents.data(), static_cast<DWORD>(contents.size()), wide.c_str());
  HANDLE file = CreateFileX(1, "b.cpp", wide.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr, 0, 0);
  const int descriptor = open(bench::Path("mapped").c_str(), O_RDWR | O_CLOEXEC);
  bench::Compare(
      "CreateFileMappingX + CloseHandle", 1,
      [&] { CloseHandle(CreateFileMappingX(1, "b.cpp", file, nullptr, PAGE_READWRITE, 1 << 20, 0, nullptr)); },
      [&] {
        const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        struct stat status;
        fstat(copy, &status);
        close(copy);
      },
      1500);
  HANDLE mapping = CreateFileMappingX(1, "b.cpp", file, nullptr, PAGE_READWRITE, 1 << 20, 0, nullptr);
  bench::Compare(
      "MapViewOfFileX + UnmapViewOfFileX 64 KiB", 1.15,
      [&] {
        auto* view =
            static_cast<volatile char*>(MapViewOfFileX(1, "b.cpp", mapping, FILE_MAP_ALL_ACCESS, 0, 0, 65536, 0));
        view[0] = 1;
        UnmapViewOfFileX(1, "b.cpp", const_cast<char*>(view));
      },
      [&] {
        volatile char* view = Map(descriptor, PROT_READ | PROT_WRITE, 0, 65536);
        view[0] = 1;
        munmap(const_cast<char*>(view), 65536);
      });
  CloseHandle(mapping);
  CloseHandle(file);
  close(descriptor);
}

void CompareTransfers() {
  constexpr size_t kSize = 40 << 20;
  const std::vector<char> contents(kSize, 't');
  const std::wstring target = bench::WidePath("target"), source = bench::WidePath("source");
  const std::string hand = bench::Path("target.hand"), sourcePath = bench::Path("source");
  const auto once = bench::Options{9, 1};
  bench::Compare(
      "Mem2FileMMF 40 MiB", 1.05, [&] { Mem2FileMMF(1, "b.cpp", contents.data(), kSize, target.c_str(), -1); },
      [&] { MemoryToMappedFile(contents.data(), kSize, hand.c_str()); }, 0, once);
  bench::Compare(
      "Mem2File 40 MiB", 1.02, [&] { Mem2File(1, "b.cpp", contents.data(), kSize, target.c_str()); },
      [&] { WriteWhole(contents.data(), kSize, hand.c_str()); }, 0, once);
  Mem2File(1, "b.cpp", contents.data(), kSize, source.c_str());
  for (BOOL mapSource : {TRUE, FALSE}) {
    bench::Compare(
        mapSource ? "CopyFileMMF 40 MiB, source mapped" : "CopyFileMMF 40 MiB, source read", 1.05,
        [&] { CopyFileMMF(1, "b.cpp", source.c_str(), target.c_str(), FALSE, -1, mapSource); },
        [&] { CopyMapped(sourcePath.c_str(), hand.c_str(), mapSource != FALSE); }, 0, once);
  }
  const std::string cp = "cp '" + sourcePath + "' '" + hand + "'";
  bench::Compare(
      "CopyFileMMF 40 MiB / cp", 1.9,
      [&] { CopyFileMMF(1, "b.cpp", source.c_str(), target.c_str(), FALSE, -1, FALSE); },
      [&] {
        if (std::system(cp.c_str()) != 0) std::abort();
      },
      0, once);

  HANDLE object =
      CreateFileMappingX(1, "b.cpp", INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, kSize, 0, L"Local\\QelBenchObject");
  char* view = static_cast<char*>(MapViewOfFileX(1, "b.cpp", object, FILE_MAP_ALL_ACCESS, 0, 0, 0, 0));
  std::memcpy(view, contents.data(), kSize);
  UnmapViewOfFileX(1, "b.cpp", view);
  const std::string objectByHand = "/qelibaselib-bench-object-" + std::to_string(getpid());
  const int descriptor = shm_open(objectByHand.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (write(descriptor, contents.data(), kSize) != static_cast<ssize_t>(kSize)) std::abort();
  close(descriptor);
  bench::Compare(
      "ObjectToFile 40 MiB", 1.05,
      [&] { ObjectToFile(1, "b.cpp", L"Local\\QelBenchObject", kSize, 0, target.c_str(), -1); },
      [&] { ObjectToMappedFile(objectByHand.c_str(), kSize, hand.c_str()); }, 0, once);
  shm_unlink(objectByHand.c_str());
  CloseHandle(object);
}

}  // namespace

BENCHMARK_GROUP(transfers) {
  CompareMappings();
  CompareTransfers();
  for (const char* name : {"mapped", "target", "source", "target.hand"}) unlink(bench::Path(name).c_str());
}
