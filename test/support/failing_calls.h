// Lets each call of the system that the library makes fail in turn.
//
//   const std::vector<FailingCall> calls = {FAILING_CALL(CreateFileW, ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE), ...};
//   FailEachCall(calls, [&](const FailedRun& failed) {
//     ... set the scene, call the library, check what it says; failed.HasFailed() tells whether the call was reached
//     ...
//   });
//
// The function runs once without a failure. Then it runs with the 1st call of each name failing, the 2nd and so on, as
// many as that run has made; each time with that one call failing and with all from it on. No handle may be left open
// by a run.
#pragma once
#include <functional>
#include <memory>
#include <vector>

#include "test/support/replace_call.h"

namespace qel::test {

class InjectedFailure {
 public:
  virtual ~InjectedFailure() = default;
  virtual int CallCount() const = 0;
};

template <CallName Name, class Pointer>
class InjectedFailureOf : public InjectedFailure {
 public:
  template <class Value>
  InjectedFailureOf(Pointer real, int nth, DWORD error, Value failureValue, int times)
      : call_(real, nth, error, failureValue, times) {}
  int CallCount() const override { return call_.Calls(); }

 private:
  FailCall<Name, Pointer> call_;
};

struct FailingCall {
  const char* name;
  DWORD error;
  bool mayFailForEver;
  std::unique_ptr<InjectedFailure> (*inject)(int nth, int times);
};

struct FailedRun {
  const FailingCall& call;
  int nth;
  bool forEver;
  const InjectedFailure& failure;
  // Whether the library has made the call that fails.
  bool HasFailed() const { return failure.CallCount() >= nth; }
};
using FailingBody = std::function<void(const FailedRun&)>;

void FailEachCall(const std::vector<FailingCall>& calls, const FailingBody& run);

}  // namespace qel::test

#define QEL_FAILING_CALL(name, error, failureValue, forEver)                                                      \
  qel::test::FailingCall {                                                                                        \
#name, error, forEver, [](int nth, int times) -> std::unique_ptr<qel::test::InjectedFailure> {                  \
      return std::make_unique<qel::test::InjectedFailureOf<#name, decltype(&::name)>>(&::name, nth, error,          \
                                                                                      failureValue, times);         \
    } \
  }
#define FAILING_CALL(name, error, failureValue) QEL_FAILING_CALL(name, error, failureValue, true)
// For a call that the library repeats until it succeeds.
#define FAILING_ONCE(name, error, failureValue) QEL_FAILING_CALL(name, error, failureValue, false)
