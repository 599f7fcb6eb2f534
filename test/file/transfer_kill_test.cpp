// Writers killed at any instruction: what they leave is nothing, or a file of the full size that the next one replaces.
#include <chrono>

#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

constexpr int kKills = 60;
constexpr std::chrono::microseconds kLater{150};  // from one kill to the next: the last comes after three copies or so
constexpr DWORD kBytes = 3 << 20;

const std::string& Bytes() {
  static const std::string bytes = Pattern(kBytes);
  return bytes;
}

const struct {
  const char* from;
  BOOL (*run)(const std::wstring& target, const std::wstring& source);
} kTransfers[] = {
    {"memory", [](auto& target, auto&) { return Mem2FileMMF(HOST, Bytes().data(), kBytes, target.c_str(), -1); }},
    {"file", [](auto& to, auto& from) { return CopyFileMMF(HOST, from.c_str(), to.c_str(), FALSE, -1, TRUE); }},
    {"object", [](auto& to, auto& from) { return ObjectToFile(HOST, from.c_str(), kBytes, 0, to.c_str(), -1); }}};

// arguments: which transfer, its target, its source.
CHILD_ROLE(TransferForEver) {
  const auto& transfer = kTransfers[std::stoul(arguments[0])];
  const std::wstring target = Widen(arguments[1]), source = Widen(arguments[2]);
  Bytes();
  Say("begun");
  while (transfer.run(target, source)) continue;
  return 1;
}

class TransferKill : public FileTest, public testing::WithParamInterface<size_t> {};

TEST_P(TransferKill, LeavesNothingOrAWholeFile) {
  SCOPED_TRACE(kTransfers[GetParam()].from);
  Write("source", Bytes());
  NamedObject object(kBytes);
  object.Fill(Bytes());
  const std::string source = GetParam() == 2 ? Narrow(object.Name()) : Text("source");
  for (int kill = 0; kill < kKills; ++kill) {
    ChildProcess child("TransferForEver", {std::to_string(GetParam()), Text("target"), source});
    ASSERT_EQ(child.WaitForLine(), "begun");
    std::this_thread::sleep_for(kill * kLater);
    ASSERT_TRUE(child.Running()) << "a writer must not fail by itself";
    child.Kill();
    child.Wait();

    std::error_code missing;
    const auto size = fs::file_size(Path("target"), missing);
    ASSERT_TRUE(missing || size == 0 || size == kBytes) << size;
  }
  EXPECT_TRUE(kTransfers[GetParam()].run(Wide("target"), Widen(source))) << "nothing is held by the dead";
  EXPECT_TRUE(FileHolds(Path("target"), Bytes()));
  EXPECT_TRUE(FileHolds(Path("source"), Bytes()));
  EXPECT_TRUE(SameBytes(object.Bytes(), Bytes()));
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_EQ(Assertions(), Messages{});
}

INSTANTIATE_TEST_SUITE_P(From, TransferKill, testing::Range(size_t{0}, std::size(kTransfers)));

}  // namespace
}  // namespace qel::test
