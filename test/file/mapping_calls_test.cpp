#include "test/file/file_test.h"

namespace qel::test {
namespace {

class MappingCalls : public FileTest {
 protected:
  FakeClock clock_;
  static ScopedMapping Section(DWORD bytes, const wchar_t* name = nullptr) {
    return ScopedMapping(CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, bytes, 0, name));
  }
  const std::wstring name_ = UniqueName();
};

TEST_F(MappingCalls, CreationIsTriedThirtyTimes) {
  EXPECT_EQ(CreateFileMappingX(HOST, HANDLE(0x7ABCDEF0), nullptr, PAGE_READWRITE, 7, 1, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(clock_.Sleeps(), std::vector<DWORD>(30, 100));
  Messages expected;
  for (int i = 0; i < 30; ++i) {
    expected.push_back("host.cpp(4711): retryCount=" + std::to_string(i) +
                       ", lastErr=6, Retry, CreateFileMappingX(0x7abcdef0, 0x00000000, 0x4, 1, 7, NULL)");
  }
  EXPECT_EQ(TakePlacedMessages(channel::kFileOperation), expected);
}

TEST_F(MappingCalls, ASuccessAfterRetriesIsCompleteAndRestoresNothing) {
  const ScopedMapping existing = Section(4096, name_.c_str());
  auto create = FAIL_CALL(CreateFileMappingW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 2);
  EXPECT_TRUE(Section(4096, name_.c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[2],
            "retryCount=2, lastErr=0, Complete, CreateFileMappingX(0xffffffff, 0x00000000, 0x4, 0, 4096, " +
                Narrow(name_) + ")");
}

TEST_F(MappingCalls, AnExistingObjectIsOpenedWith183) {
  const ScopedMapping first = Section(4096, name_.c_str());
  ASSERT_TRUE(first);
  EXPECT_TRUE(Section(4096, name_.c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  SetLastError(kUntouched);
  EXPECT_TRUE(ScopedMapping(OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, name_.c_str())));
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(MappingCalls, AFailureIsOneLineWithTheCallsArguments) {
  const ScopedMapping mapping(
      CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0x20000, 0, nullptr));
  char inNoView;
  ExpectFailures({
      {[&] { return OpenFileMappingX(HOST, FILE_MAP_WRITE, TRUE, name_.c_str()); }, 2,
       "OpenFileMappingX(0x2, 1, " + Narrow(name_) + ")"},
      {[] { return OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, nullptr); }, 87, "OpenFileMappingX(0x4, 0, NULL)"},
      {[&] { return MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_WRITE, 0x10000, 0, 4096, INFINITE); }, 5,
       "MapViewOfFileX(" + Hex(mapping.Get()) + ", 0x2, 0, 65536, 4096)"},
      {[] { return MapViewOfFileX(HOST, HANDLE(0x12), FILE_MAP_READ, 0x10000, 2, 3, INFINITE); }, 6,
       "MapViewOfFileX(0x12, 0x4, 2, 65536, 3)"},
      {[&] { return UnmapViewOfFileX(HOST, &inNoView); }, 487, "UnmapViewOfFileX(" + Address(&inNoView) + ")"},
  });
  EXPECT_EQ(clock_.Sleeps().size(), 0u);
}

TEST_F(MappingCalls, AShortageOfAddressSpaceIsWaitedOut) {
  const ScopedMapping mapping = Section(0x20000);
  {
    auto map = FAIL_CALL(MapViewOfFile, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 1000);
    EXPECT_EQ(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0, 0, 0, 1000), nullptr);
    EXPECT_EQ(GetLastError(), 8u);
    EXPECT_EQ(clock_.Sleeps(), std::vector<DWORD>(4, 300)) << "900 ms are not more than 1000";
    EXPECT_EQ(FileMessages().size(), 5u);
    EXPECT_EQ(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(FileMessages().size(), 2u);
  }
  clock_.now = 0xFFFFFF00;  // the tick count wraps on the way
  auto map = FAIL_CALL(MapViewOfFile, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 50);
  auto* view =
      static_cast<char*>(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_ALL_ACCESS, 0x10000, 0, 0x10000, INFINITE));
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(FileMessages().size(), 50u);
  SetLastError(kUntouched);
  EXPECT_TRUE(UnmapViewOfFileX(HOST, view + 0x1234)) << "any address inside";
  EXPECT_EQ(GetLastError(), kUntouched);
}

}  // namespace
}  // namespace qel::test
