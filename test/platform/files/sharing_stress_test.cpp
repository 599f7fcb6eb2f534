// Several processes that want a file for themselves: never two at a time, and always one of them.
#include <vector>

#include "test/platform/files/file_calls.h"
#include "test/support/child_process.h"

using namespace qel::test;

// Says how often it had the file, or "overlap" when it was not alone with it.
CHILD_ROLE(WantAlone) {
  const std::wstring folder = Widen(arguments[0]);
  const std::wstring wanted = folder + L"\\wanted", inside = folder + L"\\inside";
  Hear();
  int had = 0;
  for (int i = 0; i < 20'000 && had < 300; ++i) {
    FileHandle alone(wanted, kRW, 0, OPEN_ALWAYS);
    if (!alone.IsOpen()) continue;
    if (Create(inside, kW, 0, CREATE_NEW) != Success(0) || Delete(inside) != Success()) {
      Say("overlap");
      return 1;
    }
    ++had;
    if (i % 8 == 0) {  // the file goes away under those who are about to open it
      alone.Close();
      DeleteFileW(wanted.c_str());
    }
  }
  Say(std::to_string(had));
  return 0;
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
