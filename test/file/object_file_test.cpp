#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

class ObjectFile : public FileTest {};

TEST_F(ObjectFile, SavedAndLoadedInThreeChunks) {
  constexpr DWORD kBytes = 40 << 20;
  const std::string bytes = Pattern(kBytes);
  NamedObject source(kBytes), target(kBytes);
  source.Fill(bytes);
  const std::wstring path = Wide("a/object");
  const unsigned long handles = OpenHandleCount();

  ViewRecorder views;
  EXPECT_TRUE(ObjectToFile(HOST, source.Name(), kBytes, 0, path.c_str(), -1));
  EXPECT_EQ(views.Sizes(), (std::vector<SIZE_T>{kChunk, kChunk, kChunk, kChunk, 8 << 20, 8 << 20}));
  EXPECT_TRUE(FileHolds(Path("a/object"), bytes));
  for (const BOOL mapSource : {TRUE, FALSE}) {
    target.Fill(std::string(kBytes, '\0'));
    EXPECT_TRUE(FileToObject(HOST, path.c_str(), kBytes, 0, target.Name(), -1, mapSource));
    EXPECT_TRUE(SameBytes(target.Bytes(), bytes));
  }
  target.Fill(std::string(kBytes, '\0'));
  EXPECT_TRUE(CopyObject(HOST, source.Name(), kBytes, 0, target.Name(), -1));
  EXPECT_TRUE(SameBytes(target.Bytes(), bytes));
  EXPECT_EQ(views.Mapped(), 0u);
  EXPECT_EQ(OpenHandleCount(), handles);
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_F(ObjectFile, OnlyAFileOfTheObjectsSizeIsLoaded) {
  NamedObject object(4096);
  object.Fill(std::string(4096, 'o'));
  Write("f", Pattern(1000));
  const std::wstring path = Wide("f");
  for (const DWORD size : {999, 1001, 0})
    EXPECT_FALSE(FileToObject(HOST, path.c_str(), size, 0, object.Name(), -1, TRUE));
  EXPECT_FALSE(FileToObject(HOST, path.c_str(), 1000, 1, object.Name(), -1, FALSE));
  EXPECT_EQ(object.Bytes(), std::string(4096, 'o'));
  EXPECT_EQ(Assertions().size(), 4u);
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_TRUE(FileToObject(HOST, path.c_str(), 1000, 0, object.Name(), -1, TRUE));
  EXPECT_TRUE(SameBytes(object.Bytes(), Pattern(1000) + std::string(3096, 'o')));
}

TEST_F(ObjectFile, AMissingObjectFailsAtTheOpening) {
  NamedObject object(4096);
  Write("f", Pattern(1000));
  const std::wstring path = Wide("f");
  const unsigned long handles = OpenHandleCount();
  const auto failsWith2 = [&](BOOL done) {
    EXPECT_FALSE(done);
    EXPECT_EQ(GetLastError(), 2u);
    EXPECT_EQ(FileMessages().size(), 1u);
    EXPECT_EQ(Assertions().size(), 1u);
  };
  failsWith2(ObjectToFile(HOST, L"Local\\qel-test-none", 10, 0, Wide("new").c_str(), -1));
  EXPECT_FALSE(Exists("new"));
  failsWith2(FileToObject(HOST, path.c_str(), 1000, 0, L"Local\\qel-test-none", -1, TRUE));
  failsWith2(FileToObject(HOST, path.c_str(), 1000, 0, L"Local\\qel-test-none", -1, FALSE));
  failsWith2(CopyObject(HOST, L"Local\\qel-test-none", 10, 0, object.Name(), -1));
  failsWith2(CopyObject(HOST, object.Name(), 10, 0, L"Local\\qel-test-none", -1));
  EXPECT_EQ(OpenHandleCount(), handles);
}

TEST_F(ObjectFile, ASizeBeyondTheObjectFailsAtItsView) {
  NamedObject source(4096), target(8192);
  EXPECT_FALSE(CopyObject(HOST, source.Name(), 8192, 0, target.Name(), -1));
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_FALSE(CopyObject(HOST, target.Name(), 8192, 0, source.Name(), -1));
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_EQ(FileMessages().size(), 2u);
  EXPECT_EQ(Assertions().size(), 2u);
  EXPECT_FALSE(ObjectToFile(HOST, source.Name(), 8192, 0, Wide("f").c_str(), -1));
  EXPECT_TRUE(FileHolds(Path("f"), std::string(8192, '\0'))) << "the size, no contents";
}

}  // namespace
}  // namespace qel::test
