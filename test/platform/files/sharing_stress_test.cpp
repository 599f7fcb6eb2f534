// Several processes that want a file for themselves: never two at a time, and always one of them.
#include <vector>

#include "test/platform/files/turns_alone.h"

using namespace qel::test;

CHILD_ROLE(WantAlone) {
  Hear();
  return SayTurnsAlone(Widen(arguments[0]) + L"/wanted", 20'000, 300, Leaving::kDeletesItNowAndThen);
}

TEST(SharingStressTest, OneAtATime) {
  const ScratchFolder scratch;
  std::vector<ChildProcess> children;
  for (int i = 0; i < 4; ++i) children.emplace_back("WantAlone", std::vector<std::string>{scratch.Narrow()});
  for (auto& child : children) child.Tell("go");
  int had = 0;
  for (auto& child : children) {
    const std::string said = child.WaitForLine();
    EXPECT_NE(said, "overlap");
    had += std::atoi(said.c_str());
  }
  EXPECT_GT(had, 100);
}
