// Mappings of several processes.
#include <gtest/gtest.h>

#include <filesystem>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

CHILD_ROLE(WriteIntoMapping) {
  const Handle mapping(OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, Widen(arguments[0]).c_str()));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  if (!view) return 1;
  view[1] = static_cast<char>(view[0] + 1);
  Say("written");
  Hear();
  return 0;
}

// A child that has written into the mapping, and has it open.
ChildProcess StartWriter(const std::wstring& name) {
  ChildProcess child("WriteIntoMapping", {Narrow(name)});
  EXPECT_EQ(child.WaitForLine(), "written");
  return child;
}

// The name keeps what it had when the process that holds it is killed at its side.
TEST(Mapping, NamesAreSharedBetweenProcesses) {
  MappedFile file(10);
  for (const HANDLE from : {file.handle(), INVALID_HANDLE_VALUE}) {
    const std::wstring name = UniqueName();
    const Handle mapping(CreateMapping(from, PAGE_READWRITE, 10, name.c_str()));
    file.Close();
    const View view(mapping, FILE_MAP_WRITE, 0, 0);
    view[0] = 'a';
    ChildProcess child = StartWriter(name);
    EXPECT_EQ(view[1], 'b');
    child.Kill();
    EXPECT_MADE(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()), kUntouched);
  }
  EXPECT_EQ(file.Contents(), "abxxxxxxxx");
}

// By the descriptors of those who have it open: the maker here, then one who joined.
TEST(Mapping, NamesLeadToAFileThatWasRenamed) {
  MappedFile file(10);
  const std::wstring name = UniqueName();
  Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE, 0, name.c_str()));
  file.Close();
  std::filesystem::rename(file.Path(), file.Path().string() + "-renamed");
  WriteWholeFile(file.Path(), std::string(10, 'o'));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  view[0] = 'a';
  ChildProcess first = StartWriter(name);
  EXPECT_EQ(view[1], 'b');
  mapping.Close();
  view[0] = 'r';
  ChildProcess second = StartWriter(name);
  EXPECT_EQ(view[1], 's');
  EXPECT_EQ(file.Contents(), std::string(10, 'o')) << "the file that has the name now";
}

// Entries of processes that were killed are used again.
TEST(Mapping, ManyProcessesWithARenamedFile) {
  MappedFile file(10);
  const std::wstring name = UniqueName();
  Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE, 0, name.c_str()));
  file.Close();
  for (int i = 0; i < 70; ++i) {
    ChildProcess child = StartWriter(name);
    child.Kill();
  }
  std::filesystem::rename(file.Path(), file.Path().string() + "-renamed");
  ChildProcess joined = StartWriter(name);
  mapping.Close();
  EXPECT_MADE(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str()), kUntouched);
}

}  // namespace
