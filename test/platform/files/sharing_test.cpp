#include "test/platform/files/sharing_test.h"

using namespace qel::test;

namespace {

struct Kind {
  DWORD access, share;
};

DWORD Rights(DWORD access) { return (access & kR ? 1 : 0) | (access & kW ? 2 : 0) | (access & DELETE ? 4 : 0); }
// Who wants no access is in nobody's way.
bool MayShare(Kind first, Kind second) {
  if (Rights(first.access) == 0 || Rights(second.access) == 0) return true;
  return (Rights(first.access) & ~second.share) == 0 && (Rights(second.access) & ~first.share) == 0;
}

std::vector<Kind> AllKinds() {
  std::vector<Kind> kinds;
  for (const DWORD access : {DWORD{0}, kR, kW, kRW, DWORD{kR | DELETE}, DWORD{kW | DELETE}, DWORD{DELETE}})
    for (DWORD share = 0; share <= kShareAll; ++share) kinds.push_back({access, share});
  return kinds;
}

}  // namespace

CHILD_ROLE(HoldOpen) {
  const std::wstring name = Widen(arguments[0]);
  FileHandle file(name, std::stoul(arguments[1]), std::stoul(arguments[2]), OPEN_EXISTING);
  Say(file.IsOpen() ? "open" : std::to_string(GetLastError()));
  while (Hear() == "again") {
    file.Close();
    Say("closed");
  }
  return 0;
}

TEST_F(SharingTest, EachAccessMustBeInTheOthersShare) {
  const auto kinds = AllKinds();
  for (const Kind& first : kinds) {
    FileHandle holder(At("f"), first.access, first.share, OPEN_EXISTING);
    ASSERT_TRUE(holder.IsOpen());
    for (const Kind& second : kinds)
      EXPECT_EQ(Create(At("f"), second.access, second.share, OPEN_EXISTING),
                MayShare(first, second) ? Success(0) : Failure(32))
          << std::hex << first.access << '/' << first.share << " then " << second.access << '/' << second.share;
    holder.Close();
    EXPECT_EQ(Create(At("f"), kRW, 0, OPEN_EXISTING), Success(0));
  }
}

TEST_F(SharingTest, HoldsBetweenProcessesAndEndsWithAKilledOne) {
  auto child = Hold(kRW, 0);
  EXPECT_EQ(Create(At("f"), kR, kShareAll, OPEN_EXISTING), Failure(32));
  EXPECT_EQ(Delete(At("f")), Failure(32));
  EXPECT_EQ(Ask([&] { return MoveFileW(At("f").c_str(), At("g").c_str()); }), Failure(32));
  EXPECT_EQ(Ask([&] { return CopyFileW(At("f").c_str(), At("g").c_str(), FALSE); }), Failure(32));
  EXPECT_FALSE(Exists("g"));
  child.Tell("again");
  EXPECT_EQ(child.WaitForLine(), "closed");
  EXPECT_EQ(Create(At("f"), kRW, 0, OPEN_EXISTING), Success(0));

  auto killed = Hold(kRW, 0);
  EXPECT_EQ(Create(At("f"), kR, kShareAll, OPEN_EXISTING), Failure(32));
  killed.Kill();
  killed.Wait();
  EXPECT_EQ(Create(At("f"), kRW, 0, OPEN_EXISTING), Success(0));
}
