// Handles for the tests of kernel objects.
#pragma once
#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "qelibaselib/platform/win32.h"
#include "test/platform/target.h"

namespace qel::test {

inline constexpr DWORD kLongMs = 60'000;  // only a wait that has gone wrong takes so long

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

// Names of objects on the command line of a child.
inline std::string Narrow(const std::wstring& name) { return {name.begin(), name.end()}; }
inline std::wstring Widen(const std::string& name) { return {name.begin(), name.end()}; }

// What the call leaves as last error, and its result.
template <class Call>
auto WithLastError(DWORD before, Call call) {
  SetLastError(before);
  auto result = call();
  const DWORD error = GetLastError();
  return std::pair{std::move(result), error};
}

inline constexpr DWORD kUntouched = 0x2BAD;
#define EXPECT_CALL(call, result, error)                                                        \
  do {                                                                                          \
    const auto outcome = qel::test::WithLastError(qel::test::kUntouched, [&] { return call; }); \
    EXPECT_EQ(outcome.first, result);                                                           \
    EXPECT_EQ(outcome.second, static_cast<DWORD>(error));                                       \
  } while (false)

// A call that makes an object; its handle is closed at once.
#define EXPECT_MADE(call, error)                                                                                \
  do {                                                                                                          \
    const auto made = qel::test::WithLastError(qel::test::kUntouched, [&] { return qel::test::Handle(call); }); \
    EXPECT_TRUE(made.first);                                                                                    \
    EXPECT_EQ(made.second, static_cast<DWORD>(error));                                                          \
  } while (false)

// Runs a function on a thread of CreateThread; the end of the scope waits for it.
class Worker {
 public:
  explicit Worker(std::function<DWORD()> body, DWORD flags = 0)
      : body_(std::move(body)), handle_(CreateThread(nullptr, 0, &Run, this, flags, &id_)) {}
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() { Join(); }
  DWORD Join() {
    WaitForSingleObject(handle_, INFINITE);
    DWORD code = 0;
    GetExitCodeThread(handle_, &code);
    return code;
  }
  HANDLE handle() const { return handle_; }
  DWORD id() const { return id_; }

 private:
  static DWORD WINAPI Run(LPVOID self) { return static_cast<Worker*>(self)->body_(); }
  std::function<DWORD()> body_;
  DWORD id_ = 0;
  Handle handle_;
};

}  // namespace qel::test
