// Several processes that want a file for themselves: never two at a time, and always one of them.
#include "test/platform/files/turns_alone.h"

using namespace qel::test;

CHILD_ROLE(WantAlone) {
  Hear();
  return SayTurnsAlone(Widen(arguments[0]) + L"/wanted", 20'000, 300, Leaving::kDeletesItNowAndThen);
}

TEST(SharingStressTest, OneAtATime) {
  const ScratchFolder scratch;
  EXPECT_GT(CountTurnsAlone("WantAlone", 4, scratch.Narrow()), 100);
}
