// Offsets and sizes above 4 GiB, in files with holes.
#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

constexpr ULONGLONG kOffset = 0x123456789;  // 4.6 GiB, no multiple of anything

class LargeOffset : public FileTest {
 protected:
  const std::wstring path_ = Wide("large");
};

TEST_F(LargeOffset, BothHalvesArriveEverywhere) {
  const std::string bytes = Pattern(kGranularity + 10);
  ScopedFile file(OpenPlain(path_, GENERIC_READ | GENERIC_WRITE, 3, CREATE_NEW));
  ULONGLONG written = 0;
  ViewRecorder views;
  ASSERT_TRUE(WriteFileMMF2(HOST, file.Get(), bytes.data(), bytes.size(), &written, nullptr, kOffset, -1));
  ASSERT_EQ(views.Views().size(), 1u);
  EXPECT_EQ(views.Views()[0].offset, kOffset / kGranularity * kGranularity);

  // The file pointer stands behind the data; this goes on there.
  DWORD count = 0;
  EXPECT_TRUE(WriteFileMMF(HOST, file.Get(), "abc", 3, &count, nullptr, -1));
  const ULONGLONG size = kOffset + bytes.size() + 3;
  WIN32_FIND_DATAW data;
  DWORD error;
  EXPECT_EQ(GetFileSizeX(path_.c_str(), &data, &error), size);
  unsigned long long treeSize;
  EXPECT_TRUE(GetFileSizeDirectoryTree(HOST, Wide().c_str(), &treeSize));
  EXPECT_EQ(treeSize, size);

  std::string back(bytes.size() + 10, '\0');
  OVERLAPPED from{};
  from.Offset = Low(kOffset);
  from.OffsetHigh = High(kOffset);
  EXPECT_TRUE(ReadFileX(HOST, file.Get(), back.data(), static_cast<DWORD>(back.size()), &count, &from));
  EXPECT_EQ(back.substr(0, count), bytes + "abc");

  NamedObject object(4096);
  file.Close();
  EXPECT_FALSE(FileToObject(HOST, path_.c_str(), Low(size), 0, object.Name(), -1, TRUE)) << "the high half counts";
  EXPECT_EQ(Assertions().size(), 1u);
}

TEST_F(LargeOffset, AWholeFileIsFlushed) {
  ScopedFile file(OpenPlain(path_, GENERIC_READ | GENERIC_WRITE, 3, CREATE_NEW));
  LARGE_INTEGER size;
  size.QuadPart = static_cast<LONGLONG>(kOffset);
  ASSERT_TRUE(SetFilePointerEx(file.Get(), size, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get()));
  ViewRecorder views;
  EXPECT_TRUE(FlushMMF(HOST, file.Get(), FALSE));
  ASSERT_EQ(views.Views().size(), kOffset / kChunk + 1);
  EXPECT_EQ(views.Views().back().offset, kOffset / kChunk * kChunk);
  EXPECT_EQ(views.Views().back().bytes, kOffset % kChunk);
  EXPECT_EQ(Assertions(), Messages{});
}

}  // namespace
}  // namespace qel::test
