// PATH of an ordinary user with a folder that the user may not search.
#include <cstdlib>

#include "test/support/forked_child.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

DWORD ErrorOfStarting(const char* program) {
  char command[100];
  std::snprintf(command, sizeof command, "%s", program);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION information;
  return CreateProcessA(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information)
             ? 0
             : GetLastError();
}

TEST(ProcessPath, AFolderThatMayNotBeSearchedHidesNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may become another user";
  const ScratchFolder folder;
  std::filesystem::permissions(folder.Path(), std::filesystem::perms(0755));
  for (const char* name : {"closed", "open"}) std::filesystem::create_directory(folder.Path() / name);
  WriteWholeFile(folder.Path() / "open" / "qel-not-executable", "");
  std::filesystem::permissions(folder.Path() / "closed", std::filesystem::perms(0700));
  const std::string path = folder.Narrow("closed") + ":/bin:" + folder.Narrow("open");
  const auto start = [&](const char* program) {
    return RunAsOtherUser([&]() -> int {
      // At once: a leak check would find what only the parent's thread still knows.
      _exit(setenv("PATH", path.c_str(), 1) == 0 ? static_cast<int>(ErrorOfStarting(program)) : 255);
    });
  };
  EXPECT_EQ(start("qel-missing"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(start("qel-not-executable"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(start("true"), 0);
}

}  // namespace
}  // namespace qel::test
