// Mappings: which may be made and opened, by which names and rights.
#include "test/platform/memory/mapped_file.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

constexpr Numbers kProtections = {PAGE_READONLY, PAGE_READWRITE, PAGE_WRITECOPY};

RECORD(memory, SizeOfAMapping) {
  const MappedFile empty(0), file(10);
  record.Line("of an empty file");
  for (const DWORD protection : kProtections) Handle(ADD(protection, CreateMapping(empty.handle(), protection)));
  ADD("a byte", CreateMapping(empty.handle(), PAGE_READONLY, 1));
  record.Line("of 10 bytes");
  ADD("11 to read", CreateMapping(file.handle(), PAGE_READONLY, 11));
  for (const DWORD bytes : Numbers{0, 4, 70'000}) {
    Handle(ADD(bytes, CreateMapping(file.handle(), PAGE_READWRITE, bytes)));
    record.Note("size", file.Size());
  }
  const std::string bytes = file.Contents();
  record.Note("kept", bytes.substr(0, 10));
  record.Note("zeros", bytes.find_first_not_of('\0', 10) == std::string::npos);
}

RECORD(memory, AccessOfTheFile) {
  const MappedFile file(10);
  for (const DWORD access : Numbers{GENERIC_READ, GENERIC_WRITE}) {
    const Handle handle = file.Open(access);
    record.Line("access", Hex{access});
    for (const DWORD protection : kProtections) Handle(ADD(protection, CreateMapping(handle, protection)));
    ADD("longer", CreateMapping(handle, PAGE_READWRITE, 20));
  }
}

RECORD(memory, MappingsThatAreNone) {
  const MappedFile file(10);
  record.Line("protection");
  for (const DWORD protection : Numbers{0, PAGE_NOACCESS, 3}) ADD(protection, CreateMapping(file.handle(), protection));
  const Handle event = NewEvent();
  Handle closed = file.Open(GENERIC_READ);
  const HANDLE late = closed;
  closed.Close();
  record.Line("handle");
  ADD("event", CreateMapping(event, PAGE_READONLY));
  ADD("closed", CreateMapping(late, PAGE_READONLY));
  ADD("garbage", CreateMapping(reinterpret_cast<HANDLE>(0x7654320), PAGE_READONLY));
}

RECORD(memory, MappingsWithoutAFile) {
  for (const HANDLE none : {INVALID_HANDLE_VALUE, HANDLE(nullptr)}) {
    record.Line("bytes");
    ADD(0, CreateMapping(none, PAGE_READWRITE));
    const Handle mapping = ADD(5000, CreateMapping(none, PAGE_READWRITE, 5000));
    const View view(mapping, FILE_MAP_WRITE, 0, 0), other(mapping, FILE_MAP_READ, 0, 0);
    record.Note("zeros", std::string(view.base(), 5000) == std::string(5000, '\0'));
    view[4999] = 'z';
    record.Note("shared", other[4999] == 'z');
  }
  const Handle tooLarge = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0x40000000, 0, nullptr);
  const DWORD error = GetLastError();
  record.Line("too large").Note("mapping", HANDLE(tooLarge));
  record.Note("says so", error == ERROR_NOT_ENOUGH_MEMORY || error == ERROR_COMMITMENT_LIMIT);
}

RECORD(memory, NamesOfMappings) {
  const std::wstring unique = UniqueName();
  const wchar_t* const name = unique.c_str();
  Handle first = CALL(CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 3 * 4096, name));
  const View view(first, FILE_MAP_WRITE, 0, 0);
  view[0] = 'n';
  {
    const Handle second = CALL(CreateMapping(nullptr, PAGE_READONLY, 4096, (L"Local\\" + unique).c_str()));
    CALL(MapViewOfFile(second, FILE_MAP_WRITE, 0, 0, 0));
    const View whole(second, FILE_MAP_READ, 0, 0);
    record.Line("joined").Note("byte", std::string(whole.base(), 1));
    record.Note("bytes", Query(whole).RegionSize);  // of the old object, not of the second call
  }
  record.Line("opened");
  ADD("another", OpenFileMappingW(FILE_MAP_READ, FALSE, UniqueName().c_str()));
  ADD("global", OpenFileMappingW(FILE_MAP_READ, FALSE, (L"Global\\" + unique).c_str()));
  for (const wchar_t* none : {static_cast<const wchar_t*>(nullptr), L"", L"bogus\\x", L"Local\\a\\b"})
    ADD(none, OpenFileMappingW(FILE_MAP_READ, FALSE, none));
  record.Line("made");
  for (const wchar_t* other : {L"", L"bogus\\x", L"Local\\a\\b"})
    Handle(ADD(other, CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, other)));
  first.Close();  // a view keeps the memory, not the name
  CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, name));
  record.Note("byte", std::string(view.base(), 1));
  const Handle again = CALL(CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, name));
  const View fresh(again, FILE_MAP_READ, 0, 0);
  record.Note("byte", static_cast<int>(fresh[0]));
  const std::wstring event = UniqueName();
  const Handle holder = CreateEventW(nullptr, TRUE, FALSE, event.c_str());
  CALL(CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, event.c_str()));
  CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, event.c_str()));
  CALL(CreateEventW(nullptr, TRUE, FALSE, name));
}

RECORD(memory, RightsOfAnOpenedMapping) {
  const std::wstring name = UniqueName();
  const Handle mapping = CreateMapping(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, name.c_str());
  for (const DWORD right : Numbers{FILE_MAP_READ, FILE_MAP_WRITE}) {
    record.Line("opened for", right);
    const Handle handle = ADD("handle", OpenFileMappingW(right, FALSE, name.c_str()));
    for (const DWORD access : Numbers{FILE_MAP_READ, FILE_MAP_WRITE, FILE_MAP_COPY, FILE_MAP_ALL_ACCESS})
      ADD(Hex{access}, View(handle, access, 0, 0));
  }
}

}  // namespace
}  // namespace qel::test
