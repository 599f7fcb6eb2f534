// What CreateFileW makes of each disposition, name and attribute.
#include "test/platform/files/files_here.h"
#include "test/support/handle.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

class Files : public FilesHere {
 public:
  explicit Files(Record& record) : record(record) {
    Write("ex");
    Write("ro");
    SetFileAttributesW(L"ro", FILE_ATTRIBUTE_READONLY);
    MakeFolder("dir");
  }
  Handle Open(const wchar_t* name, DWORD access, DWORD disposition, DWORD flags = FILE_ATTRIBUTE_NORMAL) {
    return ADD(name, CreateFileW(name, access, kShareAll, nullptr, disposition, flags, nullptr));
  }
  Record& record;
};

RECORD(files, Dispositions) {
  Files files(record);
  for (const DWORD disposition :
       Numbers{0, CREATE_NEW, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS, TRUNCATE_EXISTING, 6}) {
    files.Write("ex");
    DeleteFileW(L"new");
    record.Line("disposition", disposition);
    for (const wchar_t* name : {L"ex", L"new", L"dir", L"nodir\\x", L"ex\\x", L"ro"})
      files.Open(name, disposition % 2 ? kW : kRW, disposition);
    record.Note("ex holds", files.Read("ex"));
    record.Note("ro holds", files.Read("ro"));
  }
}

RECORD(files, DispositionsForReading) {
  Files files(record);
  for (const DWORD disposition : Numbers{OPEN_EXISTING, OPEN_ALWAYS, CREATE_ALWAYS, TRUNCATE_EXISTING}) {
    record.Line("disposition", disposition);
    for (const wchar_t* name : {L"ro", L"ex"}) files.Open(name, kR, disposition);
    record.Note("ex holds", files.Read("ex"));
    files.Write("ex");
  }
  record.Line("emptied with other rights");
  for (const DWORD access : Numbers{GENERIC_ALL, FILE_WRITE_DATA}) files.Open(L"ex", access, TRUNCATE_EXISTING);
}

RECORD(files, AttributesOfANewFile) {
  Files files(record);
  for (const DWORD asked : Numbers{0, 0x80, 0x20, 1, 2, 4, 0x81, 0x100}) {
    record.Line("attributes", Hex{asked});
    const Handle file = files.Open(L"a", kW, CREATE_ALWAYS, asked);
    DWORD written = 0;
    ADD("written", WriteFile(file, "x", 1, &written, nullptr));  // read-only does not hold against its maker
    record.Note("read", Hex{GetFileAttributesW(L"a")});
    SetFileAttributesW(L"a", FILE_ATTRIBUTE_NORMAL);
    DeleteFileW(L"a");
  }
  for (const DWORD attribute : Numbers{FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
    SetFileAttributesW(L"ex", attribute);
    record.Line("made anew without and with", Hex{attribute});
    files.Open(L"ex", kW, CREATE_ALWAYS);
    files.Open(L"ex", kW, CREATE_ALWAYS, attribute);
  }
}

RECORD(files, NamesThatAreNone) {
  Files files(record);
  record.Line("opened");
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr),
                              L"",
                              L"?:\\???",
                              L"?:\\???\\a.txt",
                              L"a?",
                              L"a*",
                              L"<a",
                              L"a>",
                              L"a|b",
                              L"\"ex\"",
                              L"a\tb",
                              L"a\x1f",
                              L"ex\\",
                              L"dir\\",
                              L"nodir\\sub\\",
                              L"a/b\\c",
                              L".",
                              L"..",
                              L"dir",
                              L"Q:\\x",
                              L"\\\\srv\\share\\x",
                              L"\\\\.\\NONE"})
    files.Open(name, kR, OPEN_EXISTING);
  record.Line("made");
  files.Open(L"?:\\???", kW, OPEN_ALWAYS);
  record.Line("folders");
  files.Open(L"dir", 0, OPEN_EXISTING);
  for (const wchar_t* name : {L"dir", L"?:\\???"}) {
    files.Open(name, 0, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
    files.Open(name, kR, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
  }
}

RECORD(files, NamesOfTheSameFile) {
  Files files(record);
  for (const DWORD disposition : Numbers{OPEN_EXISTING, OPEN_ALWAYS}) {
    record.Line("disposition", disposition);
    for (const wchar_t* name :
         {L"ex", L".\\ex", L"./ex", L"dir/../ex", L"nodir\\..\\ex", L"dir\\\\..\\ex", L"dir\\.\\..\\ex"})
      files.Open(name, kR, disposition);
  }
  record.Line("another file");
  files.Open(L" ex", kR, OPEN_EXISTING);
}

RECORD(files, NullDevice) {
  Files files(record);
  for (const wchar_t* name : {L"NUL", L"nul", L"\\\\.\\NUL"}) {
    record.Line("device");
    const Handle first = files.Open(name, kRW, OPEN_EXISTING), second = files.Open(name, kRW, OPEN_EXISTING);
    char buffer[4];
    DWORD bytes = 99;
    ADD("write", WriteFile(first, "text", 4, &bytes, nullptr));
    record.Note("bytes", bytes);
    ADD("read", ReadFile(second, buffer, 4, &bytes, nullptr));
    record.Note("bytes", bytes);
  }
}

RECORD(files, LongestPath) {
  const Files files(record);
  const std::wstring here = files.scratch.Wide() + L"\\";
  const auto make = [&](const char* label, const std::wstring& name) {
    const Handle file = ADD(label, CreateFileW(name.c_str(), kW, 0, nullptr, CREATE_NEW, 0, nullptr));
  };
  const auto room = 259 - here.size();
  record.Line("characters");
  make("259", here + std::wstring(room, L'n'));
  make("260", here + std::wstring(room + 1, L'n'));
  make("relative 259", std::wstring(room, L'm'));
  make("relative 260", std::wstring(room + 1, L'm'));
  make("260 without limit", L"\\\\?\\" + here + std::wstring(room + 1, L'l'));
}

}  // namespace
}  // namespace qel::test
