// A handle that is closed at the end of the scope, and names of objects.
#pragma once
#include <atomic>
#include <string>
#include <utility>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

class Handle {
 public:
  Handle() = default;
  Handle(HANDLE handle) : handle_(handle) {}  // NOLINT: implicit by purpose
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Handle() { Close(); }
  void Close() {
    if (HANDLE handle = std::exchange(handle_, nullptr)) CloseHandle(handle);
  }
  operator HANDLE() const { return handle_; }  // NOLINT: implicit by purpose

 private:
  HANDLE handle_ = nullptr;
};

inline Handle NewEvent(bool manual = false, bool signalled = false) {
  return CreateEventW(nullptr, manual, signalled, nullptr);
}

// A name that no other test and no other process uses.
inline std::wstring UniqueName(const wchar_t* stem = L"qel-test") {
  static std::atomic<unsigned> count{0};
  return std::wstring(stem) + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
}

}  // namespace qel::test
