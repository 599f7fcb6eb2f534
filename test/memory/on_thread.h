// A thread on which nothing catches, neither the test framework's clauses nor a guard, so that faults and raised
// exceptions reach the filter of the process.
#pragma once
#include "test/support/library.h"

namespace qel::test {

inline DWORD WINAPI CallFunction(LPVOID function) {
  (*static_cast<std::function<void()>*>(function))();
  return 0;
}

inline void OnBareThread(std::function<void()> body) {
  HANDLE thread = CreateThread(nullptr, 0, &CallFunction, &body, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  CloseHandle(thread);
}

// Records what nobody catches and lets the thread go on, after `mend` when there is one.
class ContinuingFilter {
 public:
  explicit ContinuingFilter(std::function<void()> mend = {}) : mend_(std::move(mend)) {
    active_ = this;
    before_ = SetUnhandledExceptionFilter(&Enter);
  }
  ContinuingFilter(const ContinuingFilter&) = delete;
  ContinuingFilter& operator=(const ContinuingFilter&) = delete;
  ~ContinuingFilter() { SetUnhandledExceptionFilter(before_); }

  std::vector<EXCEPTION_RECORD> records;

 private:
  static LONG WINAPI Enter(EXCEPTION_POINTERS* pointers) {
    active_->records.push_back(*pointers->ExceptionRecord);
    if (active_->mend_) active_->mend_();
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  static inline ContinuingFilter* active_ = nullptr;
  std::function<void()> mend_;
  LPTOP_LEVEL_EXCEPTION_FILTER before_ = nullptr;
};

}  // namespace qel::test
