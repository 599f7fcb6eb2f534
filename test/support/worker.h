// Runs a function on a thread of CreateThread; the end of the scope waits for it.
#pragma once
#include <functional>

#include "test/support/handle.h"

namespace qel::test {

inline constexpr DWORD kLongMs = 60'000;  // only a wait that has gone wrong takes so long

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
