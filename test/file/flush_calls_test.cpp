#include "test/file/file_test.h"

namespace qel::test {
namespace {

constexpr SIZE_T kViewBytes = 0x10000;

// Lets every flush take the time that the test says: the performance counter stands still otherwise.
class FlushClock {
 public:
  double flushMs = 0;

 private:
  static LONGLONG PerMillisecond() {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart / 1000;
  }
  LONGLONG counter_ = 1;
  StandIn<"QueryPerformanceCounter", decltype(&::QueryPerformanceCounter)> read_{[this](int, LARGE_INTEGER* value) {
    value->QuadPart = counter_;
    return TRUE;
  }};
  StandIn<"FlushViewOfFile", decltype(&::FlushViewOfFile)> flush_{[this](int, LPCVOID address, SIZE_T bytes) {
    counter_ += static_cast<LONGLONG>(flushMs * static_cast<double>(PerMillisecond()));
    return FlushViewOfFile(address, bytes);
  }};
};

class FlushCalls : public FileTest {
 protected:
  FlushCalls() {
    VemoClearFVOFInf();
    view_ = static_cast<BYTE*>(MapViewOfFile(mapping_.Get(), FILE_MAP_ALL_ACCESS, 0, 0, kViewBytes));
    SetLastError(kUntouched);
  }
  ~FlushCalls() override { UnmapViewOfFile(view_); }

  BOOL Flush(const void* address, SIZE_T bytes) { return FlushViewOfFileX(HOST, address, bytes, INVALID_HANDLE_VALUE); }
  Messages FlushMessages() { return TakeMessages(channel::kFlush); }
  // A line without its two times.
  static std::string WithoutTimes(const std::string& message) {
    const size_t from = message.find("ET1="), to = message.find(", ", message.find("ET2="));
    return message.substr(0, from) + message.substr(to + 2);
  }
  std::string Call() const { return "FlushViewOfFileX(" + Address(view_) + ", 4096)"; }

  // Longer than any flush of the process before.
  static double NewRecordMs() {
    static double last = 1e6;
    return last += 1e6;
  }

  const ScopedFile file_{OpenPlain(Wide("x"), GENERIC_READ | GENERIC_WRITE, 1, CREATE_NEW)};
  const ScopedMapping mapping_{CreateFileMappingW(file_.Get(), nullptr, PAGE_READWRITE, 0, kViewBytes, nullptr)};
  BYTE* view_;
};

TEST_F(FlushCalls, OnlyTheLongestFlushSoFarIsLogged) {
  FlushClock clock;
  for (int i = 0; i < 2; ++i) {
    clock.flushMs = NewRecordMs();
    SetLastError(kUntouched);
    EXPECT_TRUE(Flush(view_, 4096));
    EXPECT_EQ(GetLastError(), kUntouched);
    const std::string ms = std::to_string(clock.flushMs);
    EXPECT_EQ(FlushMessages(), Messages{"Success, retryCount=0, lastErr=" + std::to_string(kUntouched) + ", ET1=" + ms +
                                        ", ET2=" + ms + ", Complete, " + Call()});
    EXPECT_TRUE(Flush(view_, 4096)) << "as long, not longer";
    clock.flushMs = 1;
    EXPECT_TRUE(Flush(view_, 4096));
    EXPECT_EQ(FlushMessages(), Messages{});
  }
  EXPECT_EQ(FileMessages(), Messages{});
}

TEST_F(FlushCalls, ALockViolationIsRetriedAHundredTimes) {
  FakeClock clock;
  auto flush = FAIL_CALL(FlushViewOfFile, 1, ERROR_LOCK_VIOLATION, FALSE, 150);
  EXPECT_FALSE(Flush(view_, 4096));
  EXPECT_EQ(GetLastError(), 33u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(100, 30));
  const Messages messages = FlushMessages();
  ASSERT_EQ(messages.size(), 101u);
  EXPECT_EQ(WithoutTimes(messages[99]), "Error, retryCount=99, lastErr=33, Retry, " + Call());
  EXPECT_EQ(WithoutTimes(messages[100]), "Error, retryCount=100, lastErr=33, Complete, " + Call());

  EXPECT_TRUE(Flush(view_, 4096)) << "49 violations are left";
  EXPECT_EQ(GetLastError(), 33u) << "as the last attempt left it";
  const Messages more = FlushMessages();
  ASSERT_EQ(more.size(), 50u);
  EXPECT_EQ(WithoutTimes(more[49]), "Success, retryCount=49, lastErr=33, Complete, " + Call());
}

TEST_F(FlushCalls, AnyOtherErrorEndsIt) {
  FakeClock clock;
  auto flush = FAIL_CALL(FlushViewOfFile, 1, ERROR_DISK_FULL, FALSE);
  EXPECT_FALSE(Flush(view_, 4096));
  EXPECT_EQ(GetLastError(), 112u);
  EXPECT_EQ(clock.Sleeps().size(), 0u);
  const Messages messages = FlushMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(WithoutTimes(messages[0]), "Error, retryCount=0, lastErr=112, Complete, " + Call());
}

TEST_F(FlushCalls, EveryCallCounts) {
  const T_FVOF_INFORMATION* statistics = VemoGetFVOFInf();
  ASSERT_NE(statistics, nullptr);
  FlushClock clock;
  clock.flushMs = 2;
  EXPECT_TRUE(Flush(view_, 4096));
  clock.flushMs = 5;
  EXPECT_TRUE(Flush(view_ + 0x1005, 0));
  clock.flushMs = 3;
  EXPECT_FALSE(Flush(view_, kViewBytes + 0x10000)) << "beyond the view";
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_EQ(statistics->callCount, 3u);
  EXPECT_EQ(statistics->totalBytes, 4096 + (kViewBytes - 0x1005) + (kViewBytes + 0x10000));
  EXPECT_DOUBLE_EQ(statistics->totalMs, 10);
  EXPECT_DOUBLE_EQ(statistics->longestMs, 5);
}

TEST_F(FlushCalls, AWholeFileIsFlushedChunkByChunk) {
  ScopedFile file(OpenPlain(Wide("40"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW));
  LARGE_INTEGER size;
  size.QuadPart = 40 << 20;
  ASSERT_TRUE(SetFilePointerEx(file.Get(), size, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get()));
  const unsigned long handles = OpenHandleCount();
  std::vector<SIZE_T> views;
  auto map = STAND_IN(MapViewOfFile, [&](int, HANDLE mapping, DWORD access, DWORD high, DWORD low, SIZE_T bytes) {
    views.push_back(bytes);
    EXPECT_EQ(Join(low, high), (views.size() - 1) % 3 * (16ull << 20));
    return MapViewOfFile(mapping, access, high, low, bytes);
  });
  auto flush = STAND_IN(FlushViewOfFile, [](int, LPCVOID, SIZE_T bytes) {
    EXPECT_EQ(bytes, 0u);
    SetLastError(ERROR_DISK_FULL);
    return FALSE;
  });
  EXPECT_TRUE(FlushMMF(HOST, file.Get(), TRUE)) << "no flush is looked at";
  EXPECT_EQ(views, (std::vector<SIZE_T>{16 << 20, 16 << 20, 8 << 20}));
  EXPECT_EQ(flush.Calls(), 3);
  EXPECT_EQ(OpenHandleCount(), handles);
  EXPECT_EQ(VemoGetFVOFInf()->totalBytes, 40u << 20);

  file.Close();
  EXPECT_TRUE(FlushMMF2(HOST, Wide("40").c_str(), FALSE));
  EXPECT_EQ(flush.Calls(), 6);
  EXPECT_EQ(OpenHandleCount(), handles - 1);
}

TEST_F(FlushCalls, OnlyAnUnreadableSizeFailsTheFlushOfAFile) {
  FakeClock clock;
  EXPECT_FALSE(FlushMMF(HOST, HANDLE(0x7ABCDEF0), FALSE));
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(FileMessages(), Messages{});

  const ScopedFile empty(OpenPlain(Wide("empty"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW));
  EXPECT_TRUE(FlushMMF(HOST, empty.Get(), FALSE));
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(FileMessages().size(), 30u);

  auto map = FAIL_CALL(MapViewOfFile, 1, ERROR_ACCESS_DENIED, nullptr);
  EXPECT_TRUE(FlushMMF(HOST, file_.Get(), FALSE));
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(FileMessages().size(), 1u);
}

TEST_F(FlushCalls, AMissingFileIsWaitedForInTheNameOfTheLibrary) {
  FakeClock clock;
  EXPECT_FALSE(FlushMMF2(HOST, Wide("no").c_str(), FALSE));
  EXPECT_EQ(GetLastError(), 2u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(10, 1000));
  const std::vector<LogLine> lines = TakeLines(channel::kFileOperation);
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_TRUE(lines[0].sourceFile.ends_with("file/flush_calls.cpp")) << lines[0].sourceFile;
}

}  // namespace
}  // namespace qel::test
