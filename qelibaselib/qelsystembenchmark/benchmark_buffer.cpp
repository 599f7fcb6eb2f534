#include "qelibaselib/qelsystembenchmark/benchmark_buffer.h"

#include <algorithm>
#include <new>

namespace qel {

namespace {

DWORD* AllocateWords(DWORD count) {
  try {
    return new DWORD[count];
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    throw;
  }
}

}  // namespace

BenchmarkBuffer::BenchmarkBuffer(DWORD bytes)
    : bytes_(bytes), array_(AllocateWords(bytes / sizeof(DWORD))), words_(array_.get()) {
  VirtualLock(words_, bytes_);
}

BenchmarkBuffer::BenchmarkBuffer(DWORD bytes, const wchar_t* path, DWORD access) : bytes_(bytes), path_(path) {
  file_ =
      ScopedFile(CreateFileW(path, access, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file_) mapping_ = ScopedMapping(CreateFileMappingW(file_.Get(), nullptr, PAGE_READWRITE, 0, bytes, nullptr));
  if (mapping_) words_ = static_cast<DWORD*>(MapViewOfFile(mapping_.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0));
  if (!words_) {
    const DWORD error = GetLastError();
    Release();
    SetLastError(error);
    throw std::bad_alloc();
  }
  VirtualLock(words_, bytes_);
}

BenchmarkBuffer::~BenchmarkBuffer() {
  VirtualUnlock(words_, bytes_);
  Release();
}

void BenchmarkBuffer::Release() {
  if (!path_) return;
  if (words_) UnmapViewOfFile(words_);
  if (mapping_) mapping_.Close();
  if (!file_) return;
  file_.Close();
  DeleteFileW(path_);
}

void BenchmarkBuffer::Reset() {
  std::fill_n(words_, count(), 0);
  if (count() > 0) words_[count() - 1] = 0xFFFFFFFF;
}

namespace {

/// Keeps the compiler from dropping reads whose sum nobody looks at.
void Consume(DWORD value) { __asm__ __volatile__("" : : "r"(value) : "memory"); }

/// Visits each of `count` words once, in an order that no cache can guess: a generator of full period over the next
/// power of two, which leaves out what lies beyond.
template <class Visit>
void VisitInRandomOrder(DWORD count, Visit visit) {
  constexpr DWORD kMultiplier = 1664525, kIncrement = 1013904223;
  DWORD mask = 1;
  while (mask < count) mask = mask * 2 + 1;
  DWORD index = 0;
  for (ULONGLONG step = 0; step <= mask; ++step) {
    if (index < count) visit(index);
    index = (index * kMultiplier + kIncrement) & mask;
  }
}

void SequentialRead(BenchmarkBuffer& first, BenchmarkBuffer*) {
  const DWORD* words = first.words();
  DWORD sum = 0;
  for (DWORD i = 0; i < first.count(); ++i) sum += words[i];
  Consume(sum);
}

void SequentialWrite(BenchmarkBuffer& first, BenchmarkBuffer*) {
  DWORD* words = first.words();
  for (DWORD i = 0; i < first.count(); ++i) words[i] = i;
  Consume(words[0]);
}

void SequentialReadWrite(BenchmarkBuffer& first, BenchmarkBuffer* second) {
  const DWORD* from = first.words();
  DWORD* to = second->words();
  for (DWORD i = 0; i < first.count(); ++i) to[i] = from[i];
  Consume(to[0]);
}

void RandomRead(BenchmarkBuffer& first, BenchmarkBuffer*) {
  const DWORD* words = first.words();
  DWORD sum = 0;
  VisitInRandomOrder(first.count(), [&](DWORD i) { sum += words[i]; });
  Consume(sum);
}

void RandomWrite(BenchmarkBuffer& first, BenchmarkBuffer*) {
  DWORD* words = first.words();
  VisitInRandomOrder(first.count(), [&](DWORD i) { words[i] = i; });
  Consume(words[0]);
}

void RandomReadWrite(BenchmarkBuffer& first, BenchmarkBuffer* second) {
  const DWORD* from = first.words();
  DWORD* to = second->words();
  VisitInRandomOrder(first.count(), [&](DWORD i) { to[i] = from[i]; });
  Consume(to[0]);
}

}  // namespace

BenchmarkKernel ChooseKernel(E_BENCH_ACCESSTYPE access, E_BENCH_READWRITE readWrite) {
  if (access == E_BENCH_SEQUENTIAL) {
    if (readWrite == E_BENCH_READ) return SequentialRead;
    return readWrite == E_BENCH_WRITE ? SequentialWrite : SequentialReadWrite;
  }
  if (readWrite == E_BENCH_READ) return RandomRead;
  return readWrite == E_BENCH_WRITE ? RandomWrite : RandomReadWrite;
}

}  // namespace qel
