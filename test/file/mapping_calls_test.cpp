#include "test/file/file_test.h"

namespace qel::test {
namespace {

std::wstring ObjectName(const char* name) {
  const std::string text = "Local\\qel-test-" + std::to_string(GetCurrentProcessId()) + "-" + name;
  return {text.begin(), text.end()};
}

class MappingCalls : public FileTest {
 protected:
  // An unnamed mapping of `bytes` zeros.
  static ScopedMapping Section(DWORD bytes, const wchar_t* name = nullptr) {
    return ScopedMapping(CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, bytes, 0, name));
  }
};

TEST_F(MappingCalls, CreationIsTriedThirtyTimes) {
  FakeClock clock;
  const HANDLE bad = HANDLE(0x7ABCDEF0);
  EXPECT_EQ(CreateFileMappingX(HOST, bad, nullptr, PAGE_READWRITE, 7, 1, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(30, 100));
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 30u);
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(messages[i], "retryCount=" + std::to_string(i) +
                               ", lastErr=6, Retry, CreateFileMappingX(0x7abcdef0, 0x00000000, 0x4, 1, 7, NULL)");
  }
}

TEST_F(MappingCalls, ASuccessAfterRetriesIsCompleteAndRestoresNothing) {
  FakeClock clock;
  const std::wstring name = ObjectName("retried");
  const ScopedMapping existing = Section(4096, name.c_str());
  auto create = FAIL_CALL(CreateFileMappingW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 2);
  EXPECT_TRUE(Section(4096, name.c_str()));
  EXPECT_EQ(GetLastError(), 183u);
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[2],
            "retryCount=2, lastErr=0, Complete, CreateFileMappingX(0xffffffff, 0x00000000, 0x4, 0, 4096, " +
                std::string(name.begin(), name.end()) + ")");
}

TEST_F(MappingCalls, AnExistingObjectIsOpenedWith183) {
  const std::wstring name = ObjectName("existing");
  const ScopedMapping first = Section(4096, name.c_str());
  ASSERT_TRUE(first);
  const ScopedMapping second = Section(4096, name.c_str());
  EXPECT_TRUE(second);
  EXPECT_EQ(GetLastError(), 183u);
  SetLastError(kUntouched);
  EXPECT_TRUE(ScopedMapping(OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, name.c_str())));
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(MappingCalls, AMissingObjectIsLogged) {
  const std::wstring name = ObjectName("missing");
  EXPECT_EQ(OpenFileMappingX(HOST, FILE_MAP_WRITE, TRUE, name.c_str()), nullptr);
  EXPECT_EQ(GetLastError(), 2u);
  EXPECT_EQ(OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_EQ(FileMessages(),
            (Messages{"lastErr=2, OpenFileMappingX(0x2, 1, " + std::string(name.begin(), name.end()) + ")",
                      "lastErr=87, OpenFileMappingX(0x4, 0, NULL)"}));
}

TEST_F(MappingCalls, AViewThatIsRefusedIsNotRetried) {
  FakeClock clock;
  const ScopedMapping mapping(
      CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0x20000, 0, nullptr));
  EXPECT_EQ(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_WRITE, 0x10000, 0, 4096, INFINITE), nullptr);
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_EQ(MapViewOfFileX(HOST, HANDLE(0x12), FILE_MAP_READ, 0x10000, 2, 3, INFINITE), nullptr);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(clock.Sleeps().size(), 0u);
  EXPECT_EQ(FileMessages(),
            (Messages{"lastErr=5, MapViewOfFileX(0x" + LowerHex(mapping.Get()) + ", 0x2, 0, 65536, 4096)",
                      "lastErr=6, MapViewOfFileX(0x12, 0x4, 2, 65536, 3)"}));
}

TEST_F(MappingCalls, AShortageOfAddressSpaceIsWaitedOut) {
  const ScopedMapping mapping = Section(0x20000);
  FakeClock clock;
  {
    auto map = FAIL_CALL(MapViewOfFile, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 1000);
    EXPECT_EQ(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0, 0, 0, 1000), nullptr);
    EXPECT_EQ(GetLastError(), 8u);
    EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(4, 300)) << "900 ms are not more than 1000";
    EXPECT_EQ(FileMessages().size(), 5u);
    EXPECT_EQ(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(FileMessages().size(), 2u);
  }
  clock.now = 0xFFFFFF00;  // the tick count wraps on the way
  auto map = FAIL_CALL(MapViewOfFile, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr, 50);
  void* view = MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0x10000, 0, 0x10000, INFINITE);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(FileMessages().size(), 50u);
  EXPECT_TRUE(UnmapViewOfFileX(HOST, view));
}

TEST_F(MappingCalls, UnmappingTakesAnyAddressInside) {
  const ScopedMapping mapping = Section(0x10000);
  auto* view = static_cast<char*>(MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0, 0));
  ASSERT_NE(view, nullptr);
  SetLastError(kUntouched);
  EXPECT_TRUE(UnmapViewOfFileX(HOST, view + 0x1234));
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_FALSE(UnmapViewOfFileX(HOST, view));
  EXPECT_EQ(GetLastError(), 487u);
  EXPECT_EQ(FileMessages(), Messages{"lastErr=487, UnmapViewOfFileX(0x" + Hex(view) + ")"});
}

}  // namespace
}  // namespace qel::test
