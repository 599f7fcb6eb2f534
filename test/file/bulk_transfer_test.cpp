#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

class BulkTransfer : public FileTest {
 protected:
  ScopedFile NewFile(const std::string& name, const std::string& bytes = {}) {
    Write(name, bytes);
    return ScopedFile(OpenPlain(Wide(name), GENERIC_READ | GENERIC_WRITE, 3));
  }
  static ULONGLONG Position(const ScopedFile& file) {
    LARGE_INTEGER position;
    SetFilePointerEx(file.Get(), {}, &position, FILE_CURRENT);
    return static_cast<ULONGLONG>(position.QuadPart);
  }
};

class BulkTransferOfSize : public BulkTransfer, public testing::WithParamInterface<DWORD> {};

// Every way writes exactly the bytes, for sizes around the borders of views.
TEST_P(BulkTransferOfSize, AllBytesArrive) {
  const DWORD size = GetParam();
  const std::string bytes = Pattern(size);
  const std::wstring source = Wide("mapped"), target = Wide("target");
  const unsigned long handles = OpenHandleCount();
  ViewRecorder views;

  EXPECT_TRUE(Mem2FileMMF(HOST, bytes.data(), size, source.c_str(), -1));
  EXPECT_TRUE(FileHolds(Path("mapped"), bytes));
  EXPECT_EQ(views.Views().size(), (size + kChunk - 1) / kChunk);
  EXPECT_TRUE(Mem2File(HOST, bytes.data(), size, target.c_str()));
  EXPECT_TRUE(FileHolds(Path("target"), bytes));
  for (const BOOL mapSource : {TRUE, FALSE}) {
    Write("target", "what was there before");
    EXPECT_TRUE(CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, -1, mapSource));
    EXPECT_TRUE(FileHolds(Path("target"), bytes));
  }
  EXPECT_EQ(views.Mapped(), 0u);
  EXPECT_EQ(OpenHandleCount(), handles);
  EXPECT_EQ(FileMessages(), Messages{});
  EXPECT_EQ(Assertions(), Messages{});
}

TEST_P(BulkTransferOfSize, WritesAnywhereInAFile) {
  const DWORD size = GetParam();
  const std::string bytes = Pattern(size, 7);
  const std::string before = Pattern(3 * kGranularity, 9);
  for (const long long offset : {1ll, kGranularity - 1ll, kGranularity * 1ll, kGranularity * 5 + 3ll}) {
    const ScopedFile file = NewFile("x", before);
    ULONGLONG written = 99;
    SetLastError(kUntouched);
    EXPECT_TRUE(WriteFileMMF2(HOST, file.Get(), bytes.data(), size, &written, nullptr, offset, -1));
    EXPECT_EQ(written, size);
    EXPECT_EQ(Position(file), offset + size);
    std::string expected = before;
    expected.resize(std::max<size_t>(expected.size(), static_cast<size_t>(offset) + size));
    expected.replace(static_cast<size_t>(offset), size, bytes);
    EXPECT_TRUE(FileHolds(Path("x"), expected));
  }
}

INSTANTIATE_TEST_SUITE_P(Borders, BulkTransferOfSize,
                         testing::Values(1, kGranularity - 1, kGranularity, kGranularity + 1, kChunk - 1, kChunk,
                                         kChunk + 1, 40 << 20));

TEST_F(BulkTransfer, AppendingMovesTheFilePointer) {
  const ScopedFile file = NewFile("x", "0123456789");
  ULONGLONG written;
  EXPECT_TRUE(WriteFileMMF2(HOST, file.Get(), "abcde", 5, &written, nullptr, -1, 100));
  EXPECT_EQ(Position(file), 15u);
  DWORD count;
  EXPECT_TRUE(WriteFileMMF(HOST, file.Get(), "fgh", 3, &count, nullptr, 100));
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(Position(file), 18u);
  EXPECT_EQ(Read("x"), "0123456789abcdefgh");
}

TEST_F(BulkTransfer, ViewsStartAtTheGranularityAndAreGivenBackByTheAddressOfTheData) {
  const ScopedFile file = NewFile("x", std::string(10, '-'));
  const std::string bytes = Pattern(kChunk + 5);
  const ULONGLONG offset = 3 * kGranularity + 77;
  ViewRecorder views;
  ULONGLONG written;
  EXPECT_TRUE(WriteFileMMF2(HOST, file.Get(), bytes.data(), bytes.size(), &written, nullptr, offset, -1));
  ASSERT_EQ(views.Views().size(), 2u);
  const auto &first = views.Views()[0], &second = views.Views()[1];
  EXPECT_EQ(first.offset, 3 * kGranularity);
  EXPECT_EQ(first.bytes, kChunk + 77);
  EXPECT_EQ(first.unmappedBy, first.address + 77);
  EXPECT_EQ(second.offset, 3 * kGranularity + kChunk);
  EXPECT_EQ(second.bytes, 77u + 5);
  EXPECT_EQ(second.unmappedBy, second.address + 77);
}

TEST_F(BulkTransfer, ViewsAreFlushedWhileMemoryIsShort) {
  const std::string bytes = Pattern(kChunk + 1);
  const DWORD size = static_cast<DWORD>(bytes.size());
  const ScopedFile file = NewFile("x");
  const std::wstring source = Wide("s"), target = Wide("t");
  NamedObject first(size), second(size);
  MemoryShortage shortage;
  ULONGLONG written;
  for (const int threshold : {0, 100, -1}) {
    const std::pair<int, std::function<BOOL()>> transfers[] = {
        // and how many views each of its two chunks has
        {1, [&] { return Mem2FileMMF(HOST, bytes.data(), size, source.c_str(), threshold); }},
        {2, [&] { return CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, threshold, TRUE); }},
        {1, [&] { return CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, threshold, FALSE); }},
        {1, [&] { return WriteFileMMF2(HOST, file.Get(), bytes.data(), size, &written, nullptr, 7, threshold); }},
        {2, [&] { return FileToObject(HOST, source.c_str(), size, 0, first.Name(), threshold, TRUE); }},
        {1, [&] { return FileToObject(HOST, source.c_str(), size, 0, first.Name(), threshold, FALSE); }},
        {2, [&] { return CopyObject(HOST, first.Name(), size, 0, second.Name(), threshold); }},
        {2, [&] { return ObjectToFile(HOST, second.Name(), size, 0, target.c_str(), threshold); }}};
    for (const auto& [views, transfer] : transfers) {
      const auto flush = WATCH_CALL(FlushViewOfFile, [](LPCVOID, SIZE_T flushed) { EXPECT_EQ(flushed, 0u); });
      EXPECT_TRUE(transfer());
      EXPECT_EQ(flush.Calls(), threshold < 0 ? 0 : 2 * views);
    }
  }
  EXPECT_TRUE(FileHolds(Path("t"), bytes));
}

TEST_F(BulkTransfer, AFailedWriteNamesItsArguments) {
  FakeClock clock;
  const HANDLE bad = HANDLE(0x7ABCDEF0);
  const char* text = "abc";
  ULONGLONG written = 99;
  DWORD count = 99;
  EXPECT_FALSE(WriteFileMMF2(HOST, bad, text, 0x100000003, &written, HANDLE(0xA), -1, -7));
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(written, 0u);
  EXPECT_FALSE(WriteFileMMF(HOST, bad, text, 3, &count, nullptr, 100));
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_EQ(FileMessages(), (Messages{"lastErr=6, WriteFileMMF2(0x7abcdef0, " + Address(text) + ", 4294967299, " +
                                          Address(&written) + ", 0x0000000A, -1, 4294967289)",
                                      "lastErr=6, WriteFileMMF(0x7abcdef0, " + Address(text) + ", 3, " +
                                          Address(&count) + ", 0x00000000, 100)"}));
  EXPECT_EQ(Assertions().size(), 1u);

  const ScopedFile readable(OpenPlain(Wide("r"), GENERIC_READ, 3, CREATE_NEW));
  EXPECT_FALSE(WriteFileMMF2(HOST, readable.Get(), text, 3, &written, nullptr, 5, 0));
  EXPECT_EQ(GetLastError(), 5u);
  const Messages messages = FileMessages();
  ASSERT_EQ(messages.size(), 31u);
  EXPECT_EQ(messages[30], "lastErr=5, WriteFileMMF2(" + Hex(readable.Get()) + ", " + Address(text) + ", 3, " +
                              Address(&written) + ", 0x00000000, 5, 0)");
  EXPECT_EQ(Assertions().size(), 1u);
}

TEST_F(BulkTransfer, WhatWasWrittenBeforeAFailureCountsAndStays) {
  const std::string bytes = Pattern(2 * kChunk);
  const ScopedFile file = NewFile("x");
  const unsigned long handles = OpenHandleCount();
  auto map = FAIL_CALL(MapViewOfFile, 2, ERROR_ACCESS_DENIED, nullptr);
  ULONGLONG written;
  EXPECT_FALSE(WriteFileMMF2(HOST, file.Get(), bytes.data(), bytes.size(), &written, nullptr, 0, -1));
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_EQ(written, kChunk);
  EXPECT_EQ(FileMessages().size(), 2u) << "of the view and of the write";
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_TRUE(FileHolds(Path("x"), bytes.substr(0, kChunk) + std::string(kChunk, '\0')));
  EXPECT_EQ(OpenHandleCount(), handles);
}

TEST_F(BulkTransfer, ThereIsNoMappedFileWithoutBytes) {
  FakeClock clock;
  Write("empty", "");
  EXPECT_FALSE(Mem2FileMMF(HOST, "", 0, Wide("x").c_str(), -1));
  EXPECT_EQ(GetLastError(), 1006u);
  EXPECT_EQ(FileMessages().size(), 30u);
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_FALSE(CopyFileMMF(HOST, Wide("empty").c_str(), Wide("x").c_str(), FALSE, -1, TRUE));
  EXPECT_FALSE(CopyFileMMF(HOST, Wide("empty").c_str(), Wide("x").c_str(), FALSE, -1, FALSE));
  EXPECT_TRUE(Mem2File(HOST, "", 0, Wide("x").c_str()));
}

TEST_F(BulkTransfer, AFailedWriteOfAWholeFileLeavesNoError) {
  {
    auto write = FAIL_CALL(WriteFile, 1, ERROR_DISK_FULL, FALSE);
    EXPECT_FALSE(Mem2File(HOST, "abc", 3, Wide("x").c_str()));
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(Assertions(), Messages{});
    EXPECT_EQ(FileMessages().size(), 1u);
  }
  FakeClock clock;
  EXPECT_TRUE(CreateDirectoryW(Wide("folder").c_str(), nullptr));
  EXPECT_FALSE(Mem2File(HOST, "abc", 3, Wide("folder").c_str()));
  EXPECT_EQ(GetLastError(), 5u);
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(FileMessages().size(), 11u);
}

TEST_F(BulkTransfer, CopyKeepsAnExistingFileWhenAsked) {
  FakeClock clock;
  Write("s", "new");
  Write("t", "old");
  EXPECT_FALSE(CopyFileMMF(HOST, Wide("s").c_str(), Wide("t").c_str(), TRUE, -1, TRUE));
  EXPECT_EQ(GetLastError(), 80u);
  EXPECT_EQ(clock.Sleeps(), std::vector<DWORD>(10, 1000));
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(Read("t"), "old");
  EXPECT_TRUE(CopyFileMMF(HOST, Wide("s").c_str(), Wide("new/t").c_str(), TRUE, -1, FALSE));
}

TEST_F(BulkTransfer, AShortReadEndsACopy) {
  Write("s", Pattern(kChunk + 10));
  auto read = STAND_IN(ReadFile, [](int nth, HANDLE file, LPVOID buffer, DWORD bytes, LPDWORD count, LPOVERLAPPED) {
    return ReadFile(file, buffer, nth == 2 ? bytes - 1 : bytes, count, nullptr);
  });
  EXPECT_FALSE(CopyFileMMF(HOST, Wide("s").c_str(), Wide("t").c_str(), FALSE, -1, FALSE));
  EXPECT_EQ(Assertions().size(), 1u);
  EXPECT_TRUE(FileHolds(Path("t"), Pattern(kChunk) + std::string(10, '\0'))) << "the size of the whole";
}

TEST_F(BulkTransfer, IntoAMappedFileIsRefusedBeforeAnythingIsLost) {
  constexpr DWORD kBytes = 100000;
  const FakeClock clock;  // a sharing violation is retried
  const std::string kept = Pattern(kBytes, 5);
  Write("source", Pattern(kBytes));
  Write("target", kept);
  NamedObject object(kBytes);
  const std::wstring source = Wide("source"), target = Wide("target");
  const std::pair<const char*, std::function<BOOL()>> transfers[] = {
      {"Mem2File", [&] { return Mem2File(HOST, kept.data(), 10, target.c_str()); }},
      {"Mem2FileMMF", [&] { return Mem2FileMMF(HOST, kept.data(), 10, target.c_str(), -1); }},
      {"CopyFileMMF", [&] { return CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, -1, TRUE); }},
      {"ObjectToFile", [&] { return ObjectToFile(HOST, object.Name(), kBytes, 0, target.c_str(), -1); }},
      {"CopyFileX", [&] { return CopyFileX(HOST, source.c_str(), target.c_str(), FALSE, 0, 0); }},
  };
  for (const DWORD protection : {PAGE_READONLY, PAGE_READWRITE}) {
    ScopedFile file(CreateFileW(target.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    const ScopedMapping mapping(CreateFileMappingW(file.Get(), nullptr, protection, 0, 0, nullptr));
    file = ScopedFile();
    void* const view = MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0);
    for (const auto& [name, transfer] : transfers) {
      if (!kLinux && std::string(name) == "CopyFileX") continue;  // Wine does not hold it off
      SCOPED_TRACE(testing::Message() << name << ", protection " << protection);
      const bool opensAlone = protection == PAGE_READWRITE && std::string(name) != "CopyFileX";
      EXPECT_FALSE(transfer());
      if (kLinux) {  // Wine's server does not look at writable mappings at every open
        EXPECT_EQ(GetLastError(), opensAlone ? 32u : 1224u);
      }
      EXPECT_TRUE(FileHolds(Path("target"), kept));
    }
    UnmapViewOfFile(view);
  }
}

}  // namespace
}  // namespace qel::test
