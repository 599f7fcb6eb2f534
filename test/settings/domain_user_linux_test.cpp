// Users of a domain, whose names have a backslash, in processes with a list of users of their own.
#include <sys/mount.h>
#include <unistd.h>

#include "test/support/library.h"
#include "test/support/own_mounts.h"

namespace qel::test {
namespace {

bool Become(uid_t user, const std::string& users) {
  return EnterOwnMountSpace() && mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0 &&
         setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
}

CHILD_ROLE(MountAlone) { return EnterOwnMountSpace() ? 0 : 1; }

CHILD_ROLE(StartAsUser) {
  LogFolder();
  if (!Become(static_cast<uid_t>(std::stoul(arguments[0])), arguments[1])) return 1;
  VemoLogOutMisc(("line of " + arguments[0]).c_str(), 1, "host.cpp");
  Say(std::to_string(VemoChkMultiStartUp(1, "host.cpp", L"domain_user_test", 0, 0)));
  Hear();
  return 0;
}

// Removes what the layer keeps for the users, who never come back.
struct UsersObjects {
  ~UsersObjects() {
    for (const auto& each : std::filesystem::directory_iterator("/dev/shm"))
      if (each.path().filename().string().starts_with("qel-5432")) std::filesystem::remove_all(each.path());
  }
};

TEST(DomainUser, WritesLinesAndStartsOnce) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may become another user";
  if (ChildProcess("MountAlone").Wait() != 0) GTEST_SKIP() << "no mounts of one's own here";
  const UsersObjects objects;
  const ScratchFolder folder;
  const std::string users = folder.Narrow("passwd");
  WriteWholeFile(users, "DOM\\Jane Doe:x:54321:54321::/tmp:/bin/sh\nDOM\\jd:x:54322:54322::/tmp:/bin/sh\n");
  std::filesystem::permissions(LogFolder(), std::filesystem::perms::all);
  TakeLines(channel::kMisc);
  // Each line makes the file anew, so that every user may write it.
  const auto start = [&](const char* user) {
    auto child = std::make_unique<ChildProcess>("StartAsUser", std::vector<std::string>{user, users});
    const std::string answer = child->WaitForLine();
    EXPECT_EQ(TakeMessages(channel::kMisc).at(0), std::string("line of ") + user);
    return std::pair(std::move(child), answer);
  };
  const auto jane = start("54321"), again = start("54321"), other = start("54322");
  EXPECT_EQ(jane.second, "0");
  EXPECT_EQ(again.second, "1");
  EXPECT_EQ(other.second, "0") << "the mark is each user's own";
}

}  // namespace
}  // namespace qel::test
