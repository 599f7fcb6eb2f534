// Creating and opening file mappings.
#include <gtest/gtest.h>

#include <filesystem>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

HANDLE Create(HANDLE file, DWORD protection, DWORD bytes, const wchar_t* name = nullptr) {
  return CreateFileMappingW(file, nullptr, protection, 0, bytes, name);
}

TEST(Mapping, TheSizeOfTheFileDecides) {
  MappedFile empty(0), file(10);
  for (const DWORD protection : {PAGE_READONLY, PAGE_READWRITE, PAGE_WRITECOPY})
    EXPECT_CALL(Create(empty.handle(), protection, 0), nullptr, ERROR_FILE_INVALID);
  EXPECT_MADE(Create(file.handle(), PAGE_READWRITE, 0), 0);
  EXPECT_MADE(Create(file.handle(), PAGE_READWRITE, 4), 0);
  EXPECT_EQ(file.Size(), 10u) << "a smaller mapping cuts nothing";
  EXPECT_CALL(Create(file.handle(), PAGE_READONLY, 11), nullptr, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_CALL(Create(empty.handle(), PAGE_READONLY, 1), nullptr, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_MADE(Create(file.handle(), PAGE_READWRITE, 70000), 0);
  ASSERT_EQ(file.Size(), 70000u) << "a larger one makes the file longer at once";
  const std::string bytes = file.Contents();
  EXPECT_EQ(bytes.substr(0, 10), std::string(10, 'x'));
  EXPECT_EQ(bytes.find_first_not_of('\0', 10), std::string::npos);
}

TEST(Mapping, TheAccessOfTheFileDecides) {
  const MappedFile file(10);
  const Handle reading = file.Open(GENERIC_READ), writing = file.Open(GENERIC_WRITE);
  EXPECT_CALL(Create(reading, PAGE_READWRITE, 0), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_CALL(Create(reading, PAGE_READWRITE, 20), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_MADE(Create(reading, PAGE_READONLY, 0), 0);
  EXPECT_MADE(Create(reading, PAGE_WRITECOPY, 0), 0);
  for (const DWORD protection : {PAGE_READONLY, PAGE_READWRITE, PAGE_WRITECOPY})
    EXPECT_CALL(Create(writing, protection, 0), nullptr, ERROR_ACCESS_DENIED);
}

TEST(Mapping, BadArguments) {
  const MappedFile file(10);
  for (const DWORD protection : std::initializer_list<DWORD>{0, PAGE_NOACCESS, 3})
    EXPECT_CALL(Create(file.handle(), protection, 0), nullptr, ERROR_INVALID_PARAMETER);
  const Handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  Handle closed = file.Open(GENERIC_READ);
  const HANDLE value = closed;
  closed.Close();
  for (const HANDLE bad : {static_cast<HANDLE>(event), value, reinterpret_cast<HANDLE>(0x7654320)})
    EXPECT_CALL(Create(bad, PAGE_READONLY, 0), nullptr, ERROR_INVALID_HANDLE);
}

TEST(Mapping, WithoutFileIsZeroedMemory) {
  for (const HANDLE none : {INVALID_HANDLE_VALUE, static_cast<HANDLE>(nullptr)}) {
    EXPECT_CALL(Create(none, PAGE_READWRITE, 0), nullptr, ERROR_INVALID_PARAMETER);
    EXPECT_MADE(Create(none, PAGE_READWRITE, 5000), 0);
    const Handle mapping(Create(none, PAGE_READWRITE, 5000));
    const View view(mapping, FILE_MAP_WRITE, 0, 0);
    ASSERT_TRUE(view);
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(view[i], 0);
    view[4999] = 'z';
    const View other(mapping, FILE_MAP_READ, 0, 0);
    EXPECT_EQ(other[4999], 'z');
  }
  SetLastError(0);
  const Handle tooLarge(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0x40000000, 0, nullptr));
  EXPECT_EQ(static_cast<HANDLE>(tooLarge), nullptr);
  EXPECT_TRUE(GetLastError() == ERROR_NOT_ENOUGH_MEMORY || GetLastError() == ERROR_COMMITMENT_LIMIT);
}

TEST(Mapping, Names) {
  const std::wstring name = UniqueName();
  Handle first(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 3 * 4096, name.c_str()));
  ASSERT_NE(static_cast<HANDLE>(first), nullptr);
  View view(first, FILE_MAP_WRITE, 0, 0);
  view[0] = 'n';
  {
    SetLastError(0);
    const Handle second(Create(INVALID_HANDLE_VALUE, PAGE_READONLY, 4096, (L"Local\\" + name).c_str()));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_CALL(MapViewOfFile(second, FILE_MAP_WRITE, 0, 0, 0), nullptr, ERROR_ACCESS_DENIED);
    const View whole(second, FILE_MAP_READ, 0, 0);
    EXPECT_EQ(whole[0], 'n');
    EXPECT_EQ(whole.RegionBytes(), 3u * 4096) << "the size of the old object, not of the second call";
  }
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, UniqueName().c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, (L"Global\\" + name).c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, nullptr), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, L""), nullptr, ERROR_INVALID_HANDLE);
  for (const wchar_t* const bad : {L"bogus\\x", L"Local\\a\\b"}) {
    EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, bad), nullptr, ERROR_PATH_NOT_FOUND);
    EXPECT_CALL(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, bad), nullptr, ERROR_PATH_NOT_FOUND);
  }
  first.Close();  // a view does not keep the name
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(view[0], 'n') << "but the memory";
  const Handle again(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, name.c_str()));
  const View fresh(again, FILE_MAP_READ, 0, 0);
  EXPECT_EQ(fresh[0], 0) << "a new object has new memory";
}

TEST(Mapping, NamesOfOtherKinds) {
  const std::wstring event = UniqueName(), section = UniqueName();
  const Handle holder(CreateEventW(nullptr, TRUE, FALSE, event.c_str()));
  EXPECT_CALL(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, event.c_str()), nullptr, ERROR_INVALID_HANDLE);
  EXPECT_CALL(OpenFileMappingW(FILE_MAP_READ, FALSE, event.c_str()), nullptr, ERROR_INVALID_HANDLE);
  const Handle mapping(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, section.c_str()));
  EXPECT_CALL(CreateEventW(nullptr, TRUE, FALSE, section.c_str()), nullptr, ERROR_INVALID_HANDLE);
  EXPECT_MADE(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, L""), 0);
}

TEST(Mapping, RightsOfAnOpenedHandle) {
  const std::wstring name = UniqueName();
  const Handle mapping(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096, name.c_str()));
  SetLastError(kUntouched);
  const Handle reading(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()));
  const Handle writing(OpenFileMappingW(FILE_MAP_WRITE, FALSE, name.c_str()));
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_CALL(MapViewOfFile(reading, FILE_MAP_WRITE, 0, 0, 0), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_CALL(MapViewOfFile(reading, FILE_MAP_ALL_ACCESS, 0, 0, 0), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_CALL(MapViewOfFile(writing, FILE_MAP_READ, 0, 0, 0), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_TRUE(View(reading, FILE_MAP_COPY, 0, 0));
  EXPECT_TRUE(View(writing, FILE_MAP_WRITE, 0, 0));
  EXPECT_TRUE(View(writing, FILE_MAP_ALL_ACCESS, 0, 0));
}

CHILD_ROLE(WriteIntoMapping) {
  const std::wstring name(arguments[0].begin(), arguments[0].end());
  const Handle mapping(OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, name.c_str()));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  if (!view) return 1;
  view[1] = static_cast<char>(view[0] + 1);
  Say("written");
  Hear();
  return 0;
}

// The name keeps what it had when the process that holds it is killed at its side.
TEST(Mapping, NamesAreSharedBetweenProcesses) {
  MappedFile file(10);
  for (const HANDLE from : {file.handle(), INVALID_HANDLE_VALUE}) {
    const std::wstring name = UniqueName();
    const Handle mapping(Create(from, PAGE_READWRITE, 10, name.c_str()));
    file.Close();
    const View view(mapping, FILE_MAP_WRITE, 0, 0);
    view[0] = 'a';
    ChildProcess child("WriteIntoMapping", {Narrow(name)});
    ASSERT_EQ(child.WaitForLine(), "written");
    EXPECT_EQ(view[1], 'b');
    child.Kill();
    EXPECT_MADE(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()), kUntouched);
  }
  EXPECT_EQ(file.Contents(), "abxxxxxxxx");
}

// By the descriptors of those who have it open: the maker here, then one who joined.
TEST(Mapping, NamesLeadToAFileThatWasRenamed) {
  if (!kLinux) GTEST_SKIP() << "Wine's server has the file open itself";
  MappedFile file(10);
  const std::wstring name = UniqueName();
  Handle mapping(Create(file.handle(), PAGE_READWRITE, 0, name.c_str()));
  file.Close();
  std::filesystem::rename(file.Path(), file.Path().string() + "-renamed");
  WriteWholeFile(file.Path(), std::string(10, 'o'));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  view[0] = 'a';
  ChildProcess first("WriteIntoMapping", {Narrow(name)});
  ASSERT_EQ(first.WaitForLine(), "written");
  EXPECT_EQ(view[1], 'b');
  mapping.Close();
  view[0] = 'r';
  ChildProcess second("WriteIntoMapping", {Narrow(name)});
  ASSERT_EQ(second.WaitForLine(), "written");
  EXPECT_EQ(view[1], 's');
  EXPECT_EQ(file.Contents(), std::string(10, 'o')) << "the file that has the name now";
}

// Entries of processes that were killed are used again.
TEST(Mapping, ManyProcessesWithARenamedFile) {
  if (!kLinux) GTEST_SKIP() << "Wine's server has the file open itself";
  MappedFile file(10);
  const std::wstring name = UniqueName();
  Handle mapping(Create(file.handle(), PAGE_READWRITE, 0, name.c_str()));
  file.Close();
  for (int i = 0; i < 70; ++i) {
    ChildProcess child("WriteIntoMapping", {Narrow(name)});
    ASSERT_EQ(child.WaitForLine(), "written");
    child.Kill();
  }
  std::filesystem::rename(file.Path(), file.Path().string() + "-renamed");
  ChildProcess joined("WriteIntoMapping", {Narrow(name)});
  ASSERT_EQ(joined.WaitForLine(), "written");
  mapping.Close();
  EXPECT_MADE(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()), kUntouched);
}

}  // namespace
