// Reading, writing, positions, offsets and locks of ranges.
#include "test/platform/files/files_here.h"
#include "test/support/handle.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

class File : public FilesHere {
 public:
  explicit File(Record& record, DWORD flags = FILE_ATTRIBUTE_NORMAL) : record(record) {
    Write("six", "abcdef");
    file = Open(kRW, flags);
  }
  static Handle Open(DWORD access, DWORD flags = FILE_ATTRIBUTE_NORMAL) {
    return CreateFileW(L"six", access, kShareAll, nullptr, OPEN_EXISTING, flags, nullptr);
  }
  void ReadFrom(HANDLE from, DWORD length, OVERLAPPED* overlapped = nullptr) {
    char buffer[100] = {};
    DWORD bytes = 99;
    ADD("read", ReadFile(from, buffer, length, &bytes, overlapped));
    record.Note("bytes", bytes);
    if (bytes != 0) record.Note("text", std::string(buffer, bytes));
  }
  void WriteTo(HANDLE to, const char* text, OVERLAPPED* overlapped = nullptr) {
    DWORD bytes = 99;
    ADD("write", WriteFile(to, text, static_cast<DWORD>(std::string(text).size()), &bytes, overlapped));
    record.Note("bytes", bytes);
  }
  void Move(HANDLE of, LONGLONG distance, DWORD method) {
    LARGE_INTEGER by, at;
    by.QuadPart = distance;
    at.QuadPart = 55;
    ADD("move", SetFilePointerEx(of, by, &at, method));
    record.Note("to", at.QuadPart);
  }
  void NoteSize(HANDLE of) {
    LARGE_INTEGER size;
    size.QuadPart = -1;
    ADD("size", GetFileSizeEx(of, &size));
    record.Note("of", size.QuadPart);
  }
  void NoteContents() {
    std::string contents;
    for (const char byte : Read("six").substr(0, 20)) contents += byte ? byte : '0';
    record.Note("contents", contents);
  }
  Record& record;
  Handle file;
};

OVERLAPPED AtOffset(DWORD offset) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = offset;
  return overlapped;
}

RECORD(files, BadHandles) {
  File file(record);
  Handle closed = File::Open(kRW);
  const HANDLE late = closed;
  closed.Close();
  const Handle event = NewEvent(), writer = File::Open(kW), reader = File::Open(kR);
  const std::pair<const char*, HANDLE> handles[] = {{"null", nullptr},
                                                    {"invalid", INVALID_HANDLE_VALUE},
                                                    {"garbage", reinterpret_cast<HANDLE>(0x7773)},
                                                    {"closed", late},
                                                    {"event", event}};
  for (const auto& [name, handle] : handles) {
    record.Line(name);
    file.ReadFrom(handle, 1);
    file.WriteTo(handle, "x");
    file.Move(handle, 0, FILE_BEGIN);
    file.NoteSize(handle);
  }
  for (const DWORD length : Numbers{0, 1}) {
    record.Line("not opened for it");
    file.ReadFrom(writer, length);
    file.WriteTo(reader, length ? "x" : "");
  }
  record.Line("wrong methods and targets are told first");
  file.Move(nullptr, 0, 3);
  file.Move(nullptr, -1, FILE_BEGIN);
}

RECORD(files, Folder) {
  File file(record);
  file.MakeFolder("dir");
  const Handle folder =
      CreateFileW(L"dir", kRW, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  record.Line("folder");
  file.ReadFrom(folder, 1);
  file.WriteTo(folder, "x");
}

RECORD(files, Positions) {
  File file(record);
  record.Line("gap");
  file.Move(file.file, 8, FILE_BEGIN);
  file.NoteSize(file.file);
  file.WriteTo(file.file, "x");
  file.NoteSize(file.file);
  file.NoteContents();
  record.Line("moves");
  for (const auto& [distance, method] :
       {std::pair{-10ll, FILE_CURRENT}, {0ll, 3}, {-2ll, FILE_END}, {0x500000000ll, FILE_BEGIN}})
    file.Move(file.file, distance, method);
  for (const LONG end : {2, 100'000}) {
    record.Line("end");
    file.Move(file.file, end, FILE_BEGIN);
    ADD("set", SetEndOfFile(file.file));
    file.NoteSize(file.file);
    file.NoteContents();
  }
  CALL(FlushFileBuffers(file.file));
}

RECORD(files, OffsetsOnASynchronousHandle) {
  File file(record);
  OVERLAPPED at2 = AtOffset(2), at6 = AtOffset(6), end = AtOffset(MAXDWORD);
  end.OffsetHigh = MAXDWORD;
  record.Line("at 2");
  file.ReadFrom(file.file, 3, &at2);
  file.Move(file.file, 0, FILE_CURRENT);
  record.Line("at the end");
  file.ReadFrom(file.file, 3, &at6);
  file.WriteTo(file.file, "gh", &end);
  record.Line("without a count");
  ADD("write", WriteFile(file.file, "C", 1, nullptr, &at2));
  file.NoteContents();
  // The position of all calls and of all handles.
  HANDLE same = nullptr;
  DuplicateHandle(GetCurrentProcess(), file.file, GetCurrentProcess(), &same, 0, FALSE, DUPLICATE_SAME_ACCESS);
  record.Line("duplicate");
  file.ReadFrom(same, 2);
  file.ReadFrom(file.file, 1, &at6);
  file.WriteTo(same, "H");
  file.ReadFrom(file.file, 1, &at2);
  ADD("cut", SetEndOfFile(same));
  file.NoteContents();
  CloseHandle(same);
}

RECORD(files, OverlappedHandle) {
  File file(record, FILE_FLAG_OVERLAPPED);
  record.Line("without an offset");
  file.ReadFrom(file.file, 1);
  file.WriteTo(file.file, "x");
  const Handle event = NewEvent(true);
  OVERLAPPED overlapped = AtOffset(4);
  overlapped.hEvent = event;
  char buffer[10] = {};
  DWORD bytes = 0;
  const auto finish = [&] {
    ADD("result", GetOverlappedResult(file.file, &overlapped, &bytes, TRUE));
    record.Note("bytes", bytes);
    record.Note("signalled", WaitForSingleObject(event, 0));
  };
  for (const DWORD offset : Numbers{4, 6}) {
    overlapped.Offset = offset;
    record.Line("read at", offset);
    ADD("read", ReadFile(file.file, buffer, 10, nullptr, &overlapped));
    finish();
    record.Note("text", buffer);
  }
  overlapped.Offset = 0;
  record.Line("write");
  ADD("write", WriteFile(file.file, "AB", 2, nullptr, &overlapped));
  finish();
  file.NoteContents();
}

RECORD(files, LockedRanges) {
  File file(record);
  constexpr DWORD kNow = LOCKFILE_FAIL_IMMEDIATELY, kAlone = kNow | LOCKFILE_EXCLUSIVE_LOCK;
  const HANDLE owner = file.file;
  const Handle other = File::Open(kRW);
  Handle reader = File::Open(kR);
  OVERLAPPED at0 = AtOffset(0), at1 = AtOffset(1), at2 = AtOffset(2);
  CALL(LockFileEx(owner, kAlone, 0, 2, 0, &at2));
  CALL(LockFileEx(other, kNow, 0, 1, 0, &at2));
  record.Line("other");
  file.ReadFrom(other, 2);
  file.ReadFrom(other, 1);
  file.WriteTo(other, "X");
  file.WriteTo(other, "X", &at2);
  CALL(CopyFileW(L"six", L"copy", FALSE));
  record.Line("behind the range").Note("copy", file.Exists("copy"));
  file.Move(other, 4, FILE_BEGIN);
  file.WriteTo(other, "E");
  record.Line("owner");
  file.ReadFrom(owner, 6);
  file.WriteTo(owner, "C", &at2);
  CALL(UnlockFileEx(owner, 0, 1, 0, &at2));
  CALL(UnlockFileEx(owner, 0, 2, 0, &at2));
  record.Line("unlocked");
  file.WriteTo(other, "D", &at2);
  CALL(LockFileEx(other, kAlone, 0, 0, 0, &at2));
  record.Line("an empty range is in nobody's way");
  file.WriteTo(owner, "D", &at2);
  CALL(UnlockFileEx(other, 0, 0, 0, &at2));
  // Shared locks overlap; what is left of them holds against writing.
  CALL(LockFileEx(reader, kNow, 0, 3, 0, &at0));
  CALL(LockFileEx(reader, kNow, 0, 3, 0, &at1));
  CALL(UnlockFileEx(reader, 0, 3, 0, &at0));
  record.Line("shared");
  file.WriteTo(other, "F", &at2);
  file.ReadFrom(other, 1, &at2);
  file.WriteTo(other, "A", &at0);
  reader.Close();
  file.WriteTo(other, "G", &at2);
}

}  // namespace
}  // namespace qel::test
