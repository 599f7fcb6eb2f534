// A few pages of read/write memory between two that nobody may touch.
#pragma once
#include "gtest/gtest.h"
#include "qelibaselib/platform/win32.h"

namespace qel::test {

class PageBuffer {
 public:
  static constexpr DWORD kPage = 4096;

  explicit PageBuffer(DWORD pages = 1)
      : size_(pages * kPage),
        base_(static_cast<BYTE*>(VirtualAlloc(nullptr, size_ + 2 * kPage, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))) {
    Protect(-1, PAGE_NOACCESS);
    Protect(static_cast<int>(pages), PAGE_NOACCESS);
  }
  PageBuffer(const PageBuffer&) = delete;
  PageBuffer& operator=(const PageBuffer&) = delete;
  ~PageBuffer() { VirtualFree(base_, 0, MEM_RELEASE); }

  DWORD Size() const { return size_; }
  BYTE* Begin() const { return base_ + kPage; }
  BYTE* End() const { return Begin() + size_; }
  void Protect(int page, DWORD protection) {
    DWORD before;
    if (!VirtualProtect(Begin() + page * static_cast<int>(kPage), kPage, protection, &before))
      ADD_FAILURE() << "VirtualProtect: " << GetLastError();
  }

 private:
  const DWORD size_;
  BYTE* const base_;
};

}  // namespace qel::test
