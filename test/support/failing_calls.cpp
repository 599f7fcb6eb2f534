#include "test/support/failing_calls.h"

#include <gtest/gtest.h>

#include "test/support/open_handles.h"

namespace qel::test {
namespace {

// Returns whether the nth call was reached.
bool RunWithFailure(const FailingCall& call, int nth, bool forEver, const std::function<void(const FailedRun&)>& run,
                    bool countHandles = true) {
  SCOPED_TRACE(std::string(call.name) + " fails " + (forEver ? "from call " : "at call ") + std::to_string(nth));
  const unsigned long handles = OpenHandleCount();
  bool reached;
  {
    const auto failure = call.inject(nth, forEver ? Failing<int(WINAPI*)()>::kForEver : 1);
    const FailedRun failed(call, nth, forEver, *failure);
    run(failed);
    reached = failed.HasFailed();
  }
  if (countHandles) {
    EXPECT_EQ(OpenHandleCount(), handles);
  }
  return reached;
}

}  // namespace

void FailEachCall(const std::vector<FailingCall>& calls, const std::function<void(const FailedRun&)>& run) {
  for (const FailingCall& call : calls) {
    for (const bool forEver : {false, true}) {
      if (forEver && !call.mayFailForEver) continue;
      RunWithFailure(call, 1, forEver, run, false);  // Wine opens things of its own at the first use
      for (int nth = 1; RunWithFailure(call, nth, forEver, run); ++nth) {
        if (testing::Test::HasFailure()) return;  // one is enough to look at
      }
    }
  }
}

}  // namespace qel::test
