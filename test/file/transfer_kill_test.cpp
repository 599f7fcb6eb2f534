// Writers killed at any instruction: what they leave is nothing, or a file of the full size that the next one replaces.
#include <chrono>
#include <thread>

#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

constexpr int kKills = 60;
constexpr std::chrono::microseconds kLater{150};  // from one kill to the next: the last comes after three copies or so
constexpr DWORD kBytes = 3 << 20;

std::wstring Wide(const std::string& path) { return std::filesystem::path(path).wstring(); }

}  // namespace

CHILD_ROLE(WriteForEver) {
  const std::string bytes = Pattern(kBytes);
  const std::wstring target = Wide(arguments.at(0));
  Say("begun");
  while (Mem2FileMMF(HOST, bytes.data(), kBytes, target.c_str(), -1)) continue;
  return 1;
}

CHILD_ROLE(CopyForEver) {
  const std::wstring target = Wide(arguments.at(0)), source = Wide(arguments.at(1));
  Say("begun");
  while (CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, -1, TRUE)) continue;
  return 1;
}

CHILD_ROLE(SaveForEver) {
  const std::wstring target = Wide(arguments.at(0));
  const std::wstring object(arguments.at(1).begin(), arguments.at(1).end());
  Say("begun");
  while (ObjectToFile(HOST, object.c_str(), kBytes, 0, target.c_str(), -1)) continue;
  return 1;
}

namespace {

class TransferKill : public FileTest {
 protected:
  // Kills a writer of `target` again and again, each time a little later.
  void KillAgainAndAgain(const char* role, const std::string& argument,
                         const std::function<BOOL(const wchar_t*)>& write) {
    const std::wstring target = Wide("target");
    for (int kill = 0; kill < kKills; ++kill) {
      ChildProcess child(role, {Text("target"), argument});
      ASSERT_EQ(child.WaitForLine(), "begun");
      std::this_thread::sleep_for(kill * kLater);
      ASSERT_TRUE(child.Running()) << "a writer must not fail by itself";
      child.Kill();
      child.Wait();

      std::error_code missing;
      const auto size = std::filesystem::file_size(Path("target"), missing);
      ASSERT_TRUE(missing || size == 0 || size == kBytes) << size;
    }
    EXPECT_TRUE(write(target.c_str())) << "nothing is held by the dead";
    EXPECT_TRUE(FileHolds(Path("target"), Pattern(kBytes)));
    EXPECT_EQ(FileMessages(), Messages{});
    EXPECT_EQ(Assertions(), Messages{});
  }
};

TEST_F(TransferKill, OfMemoryToFile) {
  const std::string bytes = Pattern(kBytes);
  KillAgainAndAgain("WriteForEver", "",
                    [&](const wchar_t* target) { return Mem2FileMMF(HOST, bytes.data(), kBytes, target, -1); });
}

TEST_F(TransferKill, OfFileToFile) {
  Write("source", Pattern(kBytes));
  KillAgainAndAgain("CopyForEver", Text("source"), [&](const wchar_t* target) {
    return CopyFileMMF(HOST, Wide("source").c_str(), target, FALSE, -1, TRUE);
  });
  EXPECT_TRUE(FileHolds(Path("source"), Pattern(kBytes)));
}

TEST_F(TransferKill, OfObjectToFile) {
  NamedObject object(kBytes);
  object.Fill(Pattern(kBytes));
  const std::wstring name = object.Name();
  KillAgainAndAgain("SaveForEver", Narrow(name),
                    [&](const wchar_t* target) { return ObjectToFile(HOST, name.c_str(), kBytes, 0, target, -1); });
  EXPECT_TRUE(SameBytes(object.Bytes(), Pattern(kBytes)));
}

}  // namespace
}  // namespace qel::test
