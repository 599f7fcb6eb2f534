/// @file
/// The buffers of the memory and mapped-file measurements.
#pragma once
#include <memory>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/qelsystembenchmark/qelsystembenchmark.h"

namespace qel {

/// Words in memory or in a mapped temporary file, locked into physical memory where the system allows it.
class BenchmarkBuffer {
 public:
  /// An array of words. Where a buffer cannot be had, std::bad_alloc is thrown with the last error of the step.
  explicit BenchmarkBuffer(DWORD bytes);
  /// A view of a new file, which is deleted again with the buffer.
  BenchmarkBuffer(DWORD bytes, const wchar_t* path, DWORD access);
  BenchmarkBuffer(const BenchmarkBuffer&) = delete;
  BenchmarkBuffer& operator=(const BenchmarkBuffer&) = delete;
  ~BenchmarkBuffer();

  DWORD* words() const { return words_; }
  DWORD count() const { return bytes_ / sizeof(DWORD); }
  /// Zeroes all words and sets the last to 0xFFFFFFFF.
  void Reset();

 private:
  void Release();

  DWORD bytes_;
  std::unique_ptr<DWORD[]> array_;
  const wchar_t* path_ = nullptr;
  ScopedFile file_;
  ScopedMapping mapping_;
  DWORD* words_ = nullptr;
};

/// The kernels: what one timed run does. `second` is null where the kernel has one buffer.
using BenchmarkKernel = void (*)(BenchmarkBuffer& first, BenchmarkBuffer* second);
BenchmarkKernel ChooseKernel(E_BENCH_ACCESSTYPE access, E_BENCH_READWRITE readWrite);

}  // namespace qel
