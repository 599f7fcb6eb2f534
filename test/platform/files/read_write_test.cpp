#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "test/platform/files/file_calls.h"
#include "test/support/page_buffer.h"

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
LONGLONG SizeOf(HANDLE file) {
  LARGE_INTEGER size;
  size.QuadPart = -1;
  GetFileSizeEx(file, &size);
  return size.QuadPart;
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

TEST_F(ReadWriteTest, BadHandlesZeroTheCount) {
  FileHandle closed(At("six"));
  const HANDLE late = closed.get();
  closed.Close();
  const Handle event = NewEvent();
  for (HANDLE bad : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(0x7773), late, HANDLE(event)}) {
    EXPECT_EQ(ReadInto(bad, buffer_, 1), (Moved{Failure(6), 0}));
    EXPECT_EQ(WriteFrom(bad, buffer_, 1), (Moved{Failure(6), 0}));
    EXPECT_EQ(MovePointer(bad, 0, FILE_BEGIN), Failure(6));
    LARGE_INTEGER size;
    size.QuadPart = 77;
    EXPECT_EQ(Ask([&] { return GetFileSizeEx(bad, &size); }), Failure(6));
    EXPECT_EQ(size.QuadPart, 77);
  }
  FileHandle writer(At("six"), kW, kShareAll, OPEN_EXISTING), reader(At("six"), kR, kShareAll, OPEN_EXISTING);
  for (const DWORD length : {0ul, 1ul}) {
    EXPECT_EQ(ReadInto(writer.get(), buffer_, length), (Moved{Failure(5), 0})) << "not opened for reading";
    EXPECT_EQ(WriteFrom(reader.get(), buffer_, length), (Moved{Failure(5), 0})) << "not opened for writing";
  }
}

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

TEST_F(ReadWriteTest, FolderIsNeitherReadNorWritten) {
  MakeFolder("dir");
  FileHandle folder(At("dir"), kRW, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
  ASSERT_TRUE(folder.IsOpen());
  EXPECT_EQ(ReadInto(folder.get(), buffer_, 1), (Moved{Failure(1), 0}));
  EXPECT_EQ(WriteFrom(folder.get(), buffer_, 1), (Moved{ByTarget(Failure(1), Failure(6)), 0}));
}

TEST_F(ReadWriteTest, WrongMethodsAndTargetsAreToldBeforeBadHandles) {
  EXPECT_EQ(MovePointer(nullptr, 0, 3), Failure(87));
  EXPECT_EQ(MovePointer(nullptr, -1, FILE_BEGIN), Failure(131));
}

TEST_F(ReadWriteTest, PositionMovesAndGapsReadAsZeros) {
  FileHandle file(At("six"));
  LONGLONG position = 0;
  EXPECT_EQ(MovePointer(file.get(), 8, FILE_BEGIN, &position), Success());
  EXPECT_EQ(SizeOf(file.get()), 6);
  EXPECT_EQ(WriteFrom(file.get(), "x", 1), (Moved{Success(), 1}));
  EXPECT_EQ(SizeOf(file.get()), 9);
  EXPECT_EQ(Read("six"), std::string("abcdef\0\0x", 9));
  position = 55;
  EXPECT_EQ(MovePointer(file.get(), -10, FILE_CURRENT, &position), Failure(131));
  EXPECT_EQ(position, 55);
  EXPECT_EQ(MovePointer(file.get(), 0, 3), Failure(87));
  EXPECT_EQ(MovePointer(file.get(), -2, FILE_END, &position), Success());
  EXPECT_EQ(position, 7);
  EXPECT_EQ(MovePointer(file.get(), 0x500000000, FILE_BEGIN, &position), Success());
  EXPECT_EQ(position, 0x500000000);
  for (const LONG end : {2, 100'000}) {
    MovePointer(file.get(), end, FILE_BEGIN);
    EXPECT_TRUE(SetEndOfFile(file.get()));
    EXPECT_EQ(SizeOf(file.get()), end);
    EXPECT_EQ(Read("six").substr(0, 3), std::string("ab\0", end < 3 ? 2 : 3));
  }
  EXPECT_TRUE(FlushFileBuffers(file.get()));
}

TEST_F(ReadWriteTest, OffsetOnASynchronousHandle) {
  FileHandle file(At("six"));
  OVERLAPPED at2 = AtOffset(2), at6 = AtOffset(6), end = AtOffset(MAXDWORD);
  end.OffsetHigh = MAXDWORD;
  EXPECT_EQ(ReadInto(file.get(), buffer_, 3, &at2), (Moved{Success(), 3}));
  EXPECT_EQ(std::string(buffer_, 3), "cde");
  LONGLONG position = 0;
  MovePointer(file.get(), 0, FILE_CURRENT, &position);
  EXPECT_EQ(position, 5);
  EXPECT_EQ(ReadInto(file.get(), buffer_, 3, &at6), (Moved{Failure(38), 0}));
  EXPECT_EQ(WriteFrom(file.get(), "gh", 2, &end), (Moved{Success(), 2}));
  EXPECT_TRUE(WriteFile(file.get(), "C", 1, nullptr, &at2));
  EXPECT_EQ(Read("six"), "abCdefgh");
  // The position of all calls and of all handles.
  HANDLE same;
  ASSERT_TRUE(
      DuplicateHandle(GetCurrentProcess(), file.get(), GetCurrentProcess(), &same, 0, FALSE, DUPLICATE_SAME_ACCESS));
  EXPECT_EQ(ReadInto(same, buffer_, 2), (Moved{Success(), 2}));
  EXPECT_EQ(std::string(buffer_, 2), "de");
  EXPECT_EQ(ReadInto(file.get(), buffer_, 1, &at6), (Moved{Success(), 1}));
  EXPECT_EQ(WriteFrom(same, "H", 1), (Moved{Success(), 1}));
  EXPECT_EQ(ReadInto(file.get(), buffer_, 1, &at2), (Moved{Success(), 1}));
  EXPECT_TRUE(SetEndOfFile(same));
  EXPECT_EQ(Read("six"), "abC");
  CloseHandle(same);
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

TEST_F(ReadWriteTest, OverlappedHandle) {
  FileHandle file(At("six"), kRW, 0, OPEN_EXISTING, FILE_FLAG_OVERLAPPED);
  EXPECT_EQ(ReadInto(file.get(), buffer_, 1), (Moved{Failure(87), 0}));
  EXPECT_EQ(WriteFrom(file.get(), buffer_, 1), (Moved{Failure(87), 0}));
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  OVERLAPPED overlapped = AtOffset(4);
  overlapped.hEvent = event;
  DWORD bytes = 0;
  EXPECT_EQ(ReadInto(file.get(), buffer_, 10, &overlapped), (Moved{Failure(997), 0}));
  EXPECT_TRUE(GetOverlappedResult(file.get(), &overlapped, &bytes, TRUE));
  EXPECT_EQ(bytes, 2u);
  EXPECT_EQ(std::string(buffer_, 2), "ef");
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  overlapped.Offset = 6;
  EXPECT_EQ(ReadInto(file.get(), buffer_, 10, &overlapped).outcome, Failure(997));
  EXPECT_EQ(Ask([&] { return GetOverlappedResult(file.get(), &overlapped, &bytes, TRUE); }), Failure(38));
  overlapped.Offset = 0;
  EXPECT_EQ(WriteFrom(file.get(), "AB", 2, &overlapped), (Moved{Failure(997), 0}));
  EXPECT_TRUE(GetOverlappedResult(file.get(), &overlapped, &bytes, TRUE));
  EXPECT_EQ(bytes, 2u);
  CloseHandle(event);
  file.Close();
  EXPECT_EQ(Read("six"), "ABcdef");
}

// Wine lets others read and write a locked range.
TEST_F(ReadWriteTest, LockedRangeHoldsAgainstOtherHandles) {
  constexpr DWORD kNow = LOCKFILE_FAIL_IMMEDIATELY, kExclusive = LOCKFILE_EXCLUSIVE_LOCK;
  FileHandle owner(At("six"), kRW, kShareAll, OPEN_EXISTING), other(At("six"), kRW, kShareAll, OPEN_EXISTING);
  OVERLAPPED at2 = AtOffset(2);
  ASSERT_TRUE(LockFileEx(owner.get(), kNow | kExclusive, 0, 2, 0, &at2));
  EXPECT_EQ(Ask([&] { return LockFileEx(other.get(), kNow, 0, 1, 0, &at2); }), Failure(33));
  EXPECT_EQ(ReadInto(other.get(), buffer_, 2), (Moved{Success(), 2}));
  if (!OnWine()) {
    EXPECT_EQ(ReadInto(other.get(), buffer_, 1), (Moved{Failure(33), 0}));
    EXPECT_EQ(WriteFrom(other.get(), "X", 1), (Moved{Failure(33), 0}));
    EXPECT_EQ(WriteFrom(other.get(), "X", 1, &at2), (Moved{Failure(33), 0}));
    OVERLAPPED atShareBytes = AtOffset(0x7fffffffffffff00);  // where the layer's own locks are
    EXPECT_EQ(WriteFrom(other.get(), "X", 1, &atShareBytes), (Moved{Failure(223), 0}));
    EXPECT_EQ(Ask([&] { return CopyFileW(L"six", L"copy", FALSE); }), Failure(33));
    EXPECT_FALSE(Exists("copy"));
  }
  MovePointer(other.get(), 4, FILE_BEGIN);
  EXPECT_EQ(WriteFrom(other.get(), "E", 1), (Moved{Success(), 1}));
  EXPECT_EQ(ReadInto(owner.get(), buffer_, 6), (Moved{Success(), 6}));
  EXPECT_EQ(WriteFrom(owner.get(), "C", 1, &at2), (Moved{Success(), 1}));
  EXPECT_EQ(Ask([&] { return UnlockFileEx(owner.get(), 0, 1, 0, &at2); }), ByTarget(Failure(158), Failure(33)));
  ASSERT_TRUE(UnlockFileEx(owner.get(), 0, 2, 0, &at2));
  EXPECT_EQ(WriteFrom(other.get(), "D", 1, &at2), (Moved{Success(), 1}));

  EXPECT_TRUE(LockFileEx(other.get(), kNow | kExclusive, 0, 0, 0, &at2)) << "an empty range is in nobody's way";
  EXPECT_EQ(WriteFrom(owner.get(), "D", 1, &at2), (Moved{Success(), 1}));
  EXPECT_TRUE(UnlockFileEx(other.get(), 0, 0, 0, &at2));

  // Shared locks overlap; what is left of them holds against writing.
  FileHandle reader(At("six"), kR, kShareAll, OPEN_EXISTING);
  OVERLAPPED at0 = AtOffset(0), at1 = AtOffset(1);
  ASSERT_TRUE(LockFileEx(reader.get(), kNow, 0, 3, 0, &at0));
  ASSERT_TRUE(LockFileEx(reader.get(), kNow, 0, 3, 0, &at1));
  ASSERT_TRUE(UnlockFileEx(reader.get(), 0, 3, 0, &at0));
  if (!OnWine()) {
    EXPECT_EQ(WriteFrom(other.get(), "D", 1, &at2), (Moved{Failure(33), 0}));
  }
  EXPECT_EQ(ReadInto(other.get(), buffer_, 1, &at2), (Moved{Success(), 1}));
  EXPECT_EQ(WriteFrom(other.get(), "A", 1, &at0), (Moved{Success(), 1}));
  reader.Close();
  EXPECT_EQ(WriteFrom(other.get(), "D", 1, &at2), (Moved{Success(), 1}));
}
