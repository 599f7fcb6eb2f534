// A file system of 1 MiB that is full, and a file that is cut while it is mapped.
#include <unistd.h>

#include "test/file/transfer_test.h"
#include "test/support/small_disk.h"

namespace qel::test {
namespace {

class FullDisk : public FileTest {
 protected:
  static constexpr DWORD kBytes = 2 << 20;

  void SetUp() override {
    if (!disk_.IsMounted()) GTEST_SKIP() << "no file system of 1 MiB to be had: only root may mount one";
  }
  const SmallDisk disk_{"1m"};
  const std::wstring target_ = disk_.Wide("x");
};

TEST_F(FullDisk, EveryWayOfWritingSaysSo) {
  const std::string bytes = Pattern(kBytes);
  Write("source", bytes);
  const std::wstring source = Wide("source");
  FakeClock clock;
  const unsigned long handles = OpenHandleCount();
  EXPECT_FALSE(Mem2FileMMF(HOST, bytes.data(), kBytes, target_.c_str(), -1));
  EXPECT_EQ(GetLastError(), 112u);
  EXPECT_EQ(fs::file_size(disk_.Path() / "x"), 0u);
  EXPECT_FALSE(CopyFileMMF(HOST, source.c_str(), target_.c_str(), FALSE, -1, FALSE));
  EXPECT_EQ(GetLastError(), 112u);
  EXPECT_FALSE(CopyFileX(HOST, source.c_str(), target_.c_str(), FALSE, 0, 0));
  EXPECT_EQ(GetLastError(), 112u);
  fs::remove(disk_.Path() / "x");

  ScopedFile file(OpenPlain(target_, GENERIC_READ | GENERIC_WRITE, 3, CREATE_ALWAYS));
  ULONGLONG written;
  EXPECT_FALSE(WriteFileMMF2(HOST, file.Get(), bytes.data(), kBytes, &written, nullptr, 0, -1));
  EXPECT_EQ(GetLastError(), 112u);
  EXPECT_EQ(written, 0u);
  DWORD count = 0;
  const BOOL done = WriteFileX(HOST, file.Get(), bytes.data(), kBytes, &count, nullptr);
  EXPECT_TRUE(done ? count < kBytes : GetLastError() == ERROR_DISK_FULL);
  EXPECT_FALSE(WriteFileX(HOST, file.Get(), bytes.data(), 4096, &count, nullptr)) << "not a byte more";
  EXPECT_EQ(GetLastError(), 112u);
  file.Close();
  EXPECT_EQ(OpenHandleCount(), handles);
}

class CutFile : public FileTest {};

TEST_F(CutFile, ATransferEndsWhereItsFileDoes) {
  const std::string bytes = Pattern(3 * kGranularity);
  Write("source", bytes);
  const unsigned long handles = OpenHandleCount();
  int mapped = 0;
  auto map = STAND_IN(MapViewOfFile, [&](int, HANDLE mapping, DWORD access, DWORD high, DWORD low, SIZE_T size) {
    void* view = MapViewOfFile(mapping, access, high, low, size);
    if (view) ++mapped;
    if (access == FILE_MAP_ALL_ACCESS) fs::resize_file(Path("target"), 10);
    return view;
  });
  auto unmap = STAND_IN(UnmapViewOfFile, [&](int, LPCVOID address) {
    --mapped;
    return UnmapViewOfFile(address);
  });
  EXPECT_FALSE(CopyFileMMF(HOST, Wide("source").c_str(), Wide("target").c_str(), FALSE, -1, TRUE));
  EXPECT_FALSE(Mem2FileMMF(HOST, bytes.data(), 3 * kGranularity, Wide("target").c_str(), -1));
  const ScopedFile file(OpenPlain(Wide("target"), GENERIC_READ | GENERIC_WRITE, 3));
  ULONGLONG written = 9;
  EXPECT_FALSE(WriteFileMMF2(HOST, file.Get(), bytes.data(), bytes.size(), &written, nullptr, 0, -1));
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(mapped, 0);
  EXPECT_EQ(OpenHandleCount(), handles + 1);
  EXPECT_EQ(FaultCount(), 3u);
}

}  // namespace
}  // namespace qel::test
