// Bad buffers, and threads that share a position.
#include "test/platform/files/file_calls.h"
#include "test/support/library.h"

using namespace qel::test;

namespace {

struct Moved {
  Outcome outcome;
  DWORD bytes;
  bool operator==(const Moved&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Moved& moved) {
    return out << moved.outcome << ", " << moved.bytes << " bytes";
  }
};

Moved ReadInto(HANDLE file, void* buffer, DWORD length, OVERLAPPED* overlapped = nullptr) {
  DWORD bytes = 99;
  const Outcome outcome = Ask([&] { return ReadFile(file, buffer, length, &bytes, overlapped); });
  return {outcome, bytes};
}
Moved WriteFrom(HANDLE file, const void* buffer, DWORD length, OVERLAPPED* overlapped = nullptr) {
  DWORD bytes = 99;
  const Outcome outcome = Ask([&] { return WriteFile(file, buffer, length, &bytes, overlapped); });
  return {outcome, bytes};
}
Outcome MovePointer(HANDLE file, LONGLONG distance, DWORD method, LONGLONG* position = nullptr) {
  LARGE_INTEGER by, at;
  by.QuadPart = distance;
  at.QuadPart = position ? *position : 0;
  const Outcome outcome = Ask([&] { return SetFilePointerEx(file, by, position ? &at : nullptr, method); });
  if (position) *position = at.QuadPart;
  return outcome;
}
OVERLAPPED AtOffset(ULONGLONG offset) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = static_cast<DWORD>(offset);
  overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return overlapped;
}

}  // namespace

class ReadWriteTest : public FileTest {
 protected:
  ReadWriteTest() { Write("six", "abcdef"); }
  char buffer_[100] = {};
};

TEST_F(ReadWriteTest, BadBuffers) {
  const PageBuffer memory, large(2);
  PageBuffer broken(3);
  broken.Protect(1, PAGE_NOACCESS);
  char* const hole = reinterpret_cast<char*>(memory.End());
  FileHandle file(At("six"));
  for (char* bad : {static_cast<char*>(nullptr), hole, hole - 3}) {
    EXPECT_EQ(ReadInto(file.get(), bad, 6), (Moved{Failure(998), 0}));
    EXPECT_EQ(WriteFrom(file.get(), bad, 6), (Moved{Failure(1784), 0}));
  }
  EXPECT_EQ(WriteFrom(file.get(), nullptr, 0), (Moved{Success(), 0}));
  EXPECT_EQ(WriteFrom(file.get(), broken.Begin(), broken.Size()), (Moved{Failure(1784), 0})) << "bad in its middle";
  EXPECT_EQ(WriteFrom(file.get(), large.Begin(), 0xFFFFFFFF), (Moved{Failure(1784), 0}));
  LONGLONG at = -1;
  EXPECT_EQ(MovePointer(file.get(), 0, FILE_CURRENT, &at), Success());
  EXPECT_EQ(at, 0);
  EXPECT_EQ(Read("six"), "abcdef");
  for (const LONG position : {3, 6}) {  // fewer bytes are left than would reach the bad page, or none
    MovePointer(file.get(), position, FILE_BEGIN);
    for (char* bad : {static_cast<char*>(nullptr), hole - 3})
      EXPECT_EQ(ReadInto(file.get(), bad, 100), (Moved{Failure(998), 0}));
    EXPECT_EQ(MovePointer(file.get(), 0, FILE_CURRENT, &at), Success());
    EXPECT_EQ(at, position);
  }
  // A short read that happens to end where a page does is the end of the file, which is a success.
  MovePointer(file.get(), 0, FILE_BEGIN);
  EXPECT_EQ(ReadInto(file.get(), hole - 6, 6), (Moved{Success(), 6}));
  EXPECT_EQ(std::string(hole - 6, 6), "abcdef");
  MovePointer(file.get(), 3, FILE_BEGIN);
  EXPECT_EQ(ReadInto(file.get(), large.Begin() + 0xFFD, 100), (Moved{Success(), 3}));
  EXPECT_EQ(ReadInto(file.get(), buffer_, 100), (Moved{Success(), 0}));
  EXPECT_EQ(ReadInto(file.get(), nullptr, 0), (Moved{Success(), 0}));
}

TEST_F(ReadWriteTest, ThreadsGoOnBehindAnOffset) {
  FileHandle file(At("six"));
  for (int i = 0; i < 300; ++i) {
    OVERLAPPED at2 = AtOffset(2);
    ASSERT_EQ(ReadInto(file.get(), buffer_, 1, &at2), (Moved{Success(), 1}));
    std::atomic<int> ready{0};
    char found[2] = {};
    const auto read = [&](char* byte) {
      for (++ready; ready < 2;) std::this_thread::yield();
      ReadInto(file.get(), byte, 1);
    };
    std::thread first(read, found), second(read, found + 1);
    first.join();
    second.join();
    EXPECT_EQ(std::min(found[0], found[1]), 'd');
    EXPECT_EQ(std::max(found[0], found[1]), 'e');
  }
}

TEST_F(ReadWriteTest, WhereTheLayersOwnLocksAreIsBehindAnyFile) {
  FileHandle owner(At("six")), other(At("six"));
  OVERLAPPED at2 = AtOffset(2), atShareBytes = AtOffset(0x7fffffffffffff00);
  ASSERT_TRUE(LockFileEx(owner.get(), LOCKFILE_EXCLUSIVE_LOCK, 0, 2, 0, &at2));
  EXPECT_NE(WriteFrom(other.get(), "X", 1, &atShareBytes).outcome, Failure(33)) << "the file system decides";
}

TEST_F(ReadWriteTest, AnEmptyFileWhoseFirstByteIsLockedIsNotCopied) {
  FileHandle owner(At("empty"));
  OVERLAPPED at0 = AtOffset(0);
  ASSERT_TRUE(LockFileEx(owner.get(), LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &at0));
  EXPECT_EQ(Ask([&] { return CopyFileW(L"empty", L"copy", FALSE); }), Failure(33));
}
