// Deleting, moving and copying files, their attributes, folders, names for temporary files.
#include <cstring>

#include "test/platform/files/files_here.h"
#include "test/support/handle.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

class Files : public FilesHere {
 public:
  Files() {
    Write("f", "source");
    Write("other", "other");
    Write("ro", "read-only");
    SetFileAttributesW(L"ro", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
    MakeFolder("dir");
  }
  void NoteContents(Record& record) const {
    record.Line("files");
    for (const char* name : {"f", "other", "ro", "copy", "dir2/f"}) record.Note(name, Read(name));
  }
};

Handle Open(const wchar_t* name, DWORD access, DWORD share) {
  return CreateFileW(name, access, share, nullptr, OPEN_EXISTING, 0, nullptr);
}
std::wstring FromTo(const wchar_t* from, const wchar_t* to) {
  return (from ? from : L"null") + std::wstring(L" > ") + (to ? to : L"null");
}
void Move(Record& record, const wchar_t* from, const wchar_t* to) { ADD(FromTo(from, to), MoveFileW(from, to)); }
void Copy(Record& record, const wchar_t* from, const wchar_t* to, BOOL failIfExists = FALSE) {
  ADD(FromTo(from, to), CopyFileW(from, to, failIfExists));
}

RECORD(files, Delete) {
  const Files files;
  record.Line("delete");
  for (const wchar_t* name : {L"missing", L"nodir\\x", L"", L"f\\x", L"ro", L"dir", L".", L"dir\\", L"f\\", L"f*",
                              L"?:\\???", L"Q:\\x", static_cast<const wchar_t*>(nullptr)})
    ADD(name, DeleteFileW(name));
  files.NoteContents(record);
  SetFileAttributesW(L"f", FILE_ATTRIBUTE_HIDDEN);
  CALL(DeleteFileW(L"f"));
  CALL(DeleteFileW(L"f"));
}

RECORD(files, Move) {
  const Files files;
  const std::pair<const wchar_t*, const wchar_t*> moves[] = {
      {L"f", L"other"},    {L"f", L"dir"},     {L"f", L"ro"}, {L"missing", L"new"}, {L"nodir\\x", L"new"},
      {L"", L"new"},       {L"f", L""},        {L"f", L"a?"}, {nullptr, L"new"},    {L"f", L"nodir\\x"},
      {L"missing", L"a?"}, {L"f", L"?:\\???"}, {L"f", L"f"}};
  record.Line("move");
  for (const auto& [from, to] : moves) Move(record, from, to);
  files.NoteContents(record);
  {
    const Handle holds = Open(L"f", kR, 3), letsGo = Open(L"ro", kR, kShareAll);
    record.Line("held");
    Move(record, L"f", L"g");
    Move(record, L"ro", L"ro2");
    record.Note("ro2", Hex{GetFileAttributesW(L"ro2")});
  }
  record.Line("move");
  Move(record, L"dir", L"dir2");
  Move(record, L"f", L"dir2\\f");
  files.NoteContents(record);
}

RECORD(files, Copy) {
  const Files files;
  WIN32_FIND_DATAW source = {}, target = {};
  FindClose(FindFirstFileW(L"ro", &source));
  Sleep(20);
  record.Line("copy");
  Copy(record, L"ro", L"copy");
  FindClose(FindFirstFileW(L"copy", &target));
  record.Note("attributes", Hex{target.dwFileAttributes});
  record.Note("same time",
              std::memcmp(&target.ftLastWriteTime, &source.ftLastWriteTime, sizeof source.ftLastWriteTime) == 0);
  files.NoteContents(record);
  for (const char* contents : {"source", ""}) {
    files.Write("f", contents);
    files.Write("long", std::string(100'000, 'x'));
    record.Line("shorter");
    Copy(record, L"f", L"long");
    record.Note("long", files.Read("long"));
  }
}

RECORD(files, CopyRefuses) {
  const Files files;
  record.Line("only a new file");
  for (const wchar_t* target : {L"other", L"ro", L"dir", L"f"}) Copy(record, L"f", target, TRUE);
  const std::pair<const wchar_t*, const wchar_t*> copies[] = {
      {L"f", L"f"},          {L"f", L"dir"}, {L"dir", L"new"}, {L"missing", L"new"},
      {L"nodir\\x", L"new"}, {L"f", L"a?"},  {L"", L"new"},    {L"f", L"nodir\\x"},
      {L"missing", L"a?"},   {L"f", L""},    {L"ro", L"ro"},   {L"f", L"ro"}};
  record.Line("any");
  for (const auto& [from, to] : copies) Copy(record, from, to);
  files.NoteContents(record);
  SetFileAttributesW(L"other", FILE_ATTRIBUTE_HIDDEN);
  record.Line("onto a hidden one");
  Copy(record, L"f", L"other");
}

RECORD(files, CopyBesideHolders) {
  const Files files;
  for (const DWORD share : Numbers{0, 1, 2, 3}) {
    record.Line("a writer's share", share);
    const Handle writer = Open(L"f", kRW, share);
    Copy(record, L"f", L"copy");
  }
  for (const auto& [access, share] : {std::pair{kR, 0ul}, {kR, 1ul}, {kR, 3ul}, {kW, 3ul}, {kRW, 3ul}}) {
    record.Line("the target's holder", Hex{access}, share);
    Handle holder = Open(L"other", access, share);
    Copy(record, L"f", L"other");
    holder.Close();
    record.Note("holds", files.Read("other"));
  }
}

RECORD(files, Attributes) {
  const Files files;
  record.Line("f");
  for (const DWORD attributes : Numbers{0x80, 0, 1, 0x21, 2, 0x86, 0x20, 0x27}) {
    ADD(Hex{attributes}, SetFileAttributesW(L"f", attributes));
    record.Note("read", Hex{GetFileAttributesW(L"f")});
  }
  record.Line("others");
  for (const wchar_t* name : {L"other", L"dir", L"dir\\"}) ADD(name, GetFileAttributesW(name));
  for (const wchar_t* name :
       {L"missing", L"nodir\\x", L"f\\x", L"", L"Q:\\x", L"?:\\???", L"*", static_cast<const wchar_t*>(nullptr)}) {
    ADD(name, static_cast<LONG>(GetFileAttributesW(name)));
    ADD("set", SetFileAttributesW(name, FILE_ATTRIBUTE_NORMAL));
  }
}

RECORD(files, Folders) {
  const Files files;
  record.Line("made");
  for (const wchar_t* name : {L"new", L"new", L"f", L"no\\sub", L"", L"?:\\???"})
    ADD(name, CreateDirectoryW(name, nullptr));
  files.Write("new/inside");
  record.Line("removed");
  for (const wchar_t* name : {L"new", L"missing", L"no\\sub", L"f", L"", static_cast<const wchar_t*>(nullptr)})
    ADD(name, RemoveDirectoryW(name));
  std::filesystem::current_path(files.scratch.Path() / "dir");
  ADD("the current one", RemoveDirectoryW(files.At("dir").c_str()));
  std::filesystem::current_path(files.scratch.Path());
  CALL(SetFileAttributesW(L"dir", FILE_ATTRIBUTE_READONLY));
  record.Note("read", Hex{GetFileAttributesW(L"dir")});
  files.Write("dir/inside");
  CALL(DeleteFileW(L"dir\\inside"));
  CALL(RemoveDirectoryW(L"dir"));
  files.MakeFolder("dir");
  CALL(SetFileAttributesW(L"dir", FILE_ATTRIBUTE_NORMAL));
  record.Note("read", Hex{GetFileAttributesW(L"dir")});
  CALL(RemoveDirectoryW(L"dir\\"));
  CALL(RemoveDirectoryW(L"dir\\"));
}

RECORD(files, TemporaryNames) {
  const Files files;
  const std::wstring here = files.scratch.Wide();
  std::wstring last;
  const auto ask = [&](const wchar_t* folder, const wchar_t* prefix, UINT unique) {
    wchar_t made[MAX_PATH] = L"";
    record.Line(folder == here.c_str() ? L"here" : folder, prefix, Hex{unique});
    if (unique % 0x10000 != 0) {
      ADD("number", GetTempFileNameW(folder, prefix, unique, made));
      record.Note("name",
                  std::wstring(made).starts_with(here) ? L"here, " + std::wstring(made + here.size() + 1) : made);
    } else {  // the system chooses the number
      ADD("made", GetTempFileNameW(folder, prefix, unique, made) != 0);
      record.Note("attributes", Hex{GetFileAttributesW(made)});
      record.Note("another", std::exchange(last, made) != made);
    }
  };
  ask(here.c_str(), L"pre", 5);
  ask(here.c_str(), L"prefixlong", 0x12345678);
  ask(here.c_str(), nullptr, 0xAB);
  ask(L".", L"pre", 5);
  ask(L"dir\\", L"pre", 5);
  record.Line("made").Note("pre5.tmp", files.Exists("pre5.tmp"));
  for (const UINT unique : {0u, 0u, 0x10000u}) ask(here.c_str(), L"pre", unique);
  for (const wchar_t* bad : {L"missing", L"f", L"", L"?:\\???"})
    for (const UINT unique : {0u, 5u}) ask(bad, L"pre", unique);
  ask(nullptr, L"pre", 5);
  char narrow[MAX_PATH] = "x";
  record.Line("narrow");
  ADD("number", GetTempFileNameA(".", "narrow", 0x1F, narrow));
  record.Note("name", narrow);
  ADD("null", GetTempFileNameA(nullptr, "n", 5, narrow));
}

}  // namespace
}  // namespace qel::test
