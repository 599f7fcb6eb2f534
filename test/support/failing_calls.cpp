#include "test/support/failing_calls.h"

#include <gtest/gtest.h>

#include "test/support/open_handles.h"

namespace qel::test {
namespace {

constexpr int kForEver = Failing<int(WINAPI*)()>::kForEver;

// How often an undisturbed run makes each call.
std::vector<int> CountCalls(const std::vector<FailingCall>& calls, const FailingBody& run) {
  std::vector<std::unique_ptr<InjectedFailure>> never;
  never.reserve(calls.size());
  for (const FailingCall& call : calls) never.push_back(call.inject(kForEver, 1));
  run({calls.front(), kForEver, false, *never.front()});
  std::vector<int> counts;
  counts.reserve(calls.size());
  for (const auto& failure : never) counts.push_back(failure->CallCount());
  return counts;
}

void RunWithFailure(const FailingCall& call, int nth, bool forEver, const FailingBody& run) {
  const auto failure = call.inject(nth, forEver ? kForEver : 1);
  const FailedRun failed{call, nth, forEver, *failure};
  run(failed);
  EXPECT_TRUE(failed.HasFailed());
}

void ExpectNothingLeft(const FailingCall& call, int nth, bool forEver, const FailingBody& run) {
  SCOPED_TRACE(std::string(call.name) + " fails " + (forEver ? "from call " : "at call ") + std::to_string(nth));
  const unsigned long handles = OpenHandleCount();
  RunWithFailure(call, nth, forEver, run);
  EXPECT_EQ(OpenHandleCount(), handles);
}

}  // namespace

void FailEachCall(const std::vector<FailingCall>& calls, const FailingBody& run) {
  // Up to its failing call a run is as the undisturbed one: a call that this does not make never fails.
  const std::vector<int> counts = CountCalls(calls, run);
  for (size_t i = 0; i < calls.size(); ++i) {
    if (counts[i] > 0) RunWithFailure(calls[i], 1, false, run);  // Wine opens things of its own at the first failure
    for (int nth = 1; nth <= counts[i] && !testing::Test::HasFailure(); ++nth) {
      ExpectNothingLeft(calls[i], nth, false, run);
      if (calls[i].mayFailForEver) ExpectNothingLeft(calls[i], nth, true, run);
    }
  }
}

}  // namespace qel::test
