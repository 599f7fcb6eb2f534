// How mappings and views hold their file: nobody empties, cuts or deletes it, in any process, and a writable one holds
// off opens that do not share writing.
#include <gtest/gtest.h>

#include <optional>

#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"

using namespace qel::test;

namespace {

constexpr DWORD kBytes = 3 * 65536;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HANDLE OpenSharing(const MappedFile& file, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
  return CreateFileW(file.Name().c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

BOOL CutAt(HANDLE handle, LONG size) {
  LARGE_INTEGER end;
  end.QuadPart = size;
  return SetFilePointerEx(handle, end, nullptr, FILE_BEGIN) && SetEndOfFile(handle);
}

BOOL Cut(const MappedFile& file, LONG size) { return CutAt(Handle(file.Open(GENERIC_WRITE)), size); }

BOOL CopyOnto(const MappedFile& file) {
  const ScratchFolder folder;
  WriteWholeFile(folder.Path() / "other", "y");
  return CopyFileW(folder.Wide("other").c_str(), file.Name().c_str(), FALSE);
}

void ExpectHeld(const MappedFile& file, bool forWriting) {
  EXPECT_CALL(OpenSharing(file, GENERIC_WRITE, kShareAll, CREATE_ALWAYS), INVALID_HANDLE_VALUE, ERROR_USER_MAPPED_FILE);
  EXPECT_CALL(OpenSharing(file, GENERIC_WRITE, kShareAll, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE,
              ERROR_USER_MAPPED_FILE);
  for (const LONG size : {LONG{0}, LONG{1}, static_cast<LONG>(kBytes - 1)}) {
    EXPECT_CALL(Cut(file, size), FALSE, ERROR_USER_MAPPED_FILE);
  }
  EXPECT_CALL(CopyOnto(file), FALSE, ERROR_USER_MAPPED_FILE);
  EXPECT_EQ(_wfopen(file.Name().c_str(), L"w"), nullptr);
  EXPECT_CALL(DeleteFileW(file.Name().c_str()), FALSE, ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.Contents(), std::string(kBytes, 'x'));
  const Handle alone(OpenSharing(file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE));
  EXPECT_EQ(alone == INVALID_HANDLE_VALUE, forWriting);
  if (forWriting) {
    EXPECT_CALL(OpenSharing(file, GENERIC_READ, FILE_SHARE_READ), INVALID_HANDLE_VALUE, ERROR_SHARING_VIOLATION);
  }
}

void ExpectFree(const MappedFile& file) {
  EXPECT_MADE(OpenSharing(file, GENERIC_READ, 0), 0);
  EXPECT_TRUE(Cut(file, 1));
  EXPECT_TRUE(CopyOnto(file));
  EXPECT_TRUE(DeleteFileW(file.Name().c_str()));
}

TEST(MappingHold, MappingOrViewOfThisProcess) {
  for (const DWORD protection : {PAGE_READONLY, PAGE_WRITECOPY, PAGE_READWRITE}) {
    SCOPED_TRACE(protection);
    MappedFile file(kBytes);
    const bool forWriting = protection == PAGE_READWRITE;
    std::optional<View> view;
    {
      const Handle mapping(CreateFileMappingW(file.handle(), nullptr, protection, 0, 0, nullptr));
      EXPECT_CALL(CutAt(file.handle(), 1), FALSE, ERROR_USER_MAPPED_FILE);  // the mapping's own handle
      file.Close();
      ExpectHeld(file, forWriting);
      view.emplace(mapping, FILE_MAP_READ, 0, 65536);
      ASSERT_TRUE(*view);
    }
    ExpectHeld(file, forWriting);
    view.reset();
    ExpectFree(file);
  }
}

// The marks of two mappings of one handle are the same bytes of the same lock owner.
TEST(MappingHold, EachOfSeveralMappingsOfOneHandle) {
  const MappedFile file(kBytes);
  const auto map = [&](DWORD protection) {
    return Handle(CreateFileMappingW(file.handle(), nullptr, protection, 0, 0, nullptr));
  };
  Handle reading = map(PAGE_READONLY), writing = map(PAGE_READWRITE), second = map(PAGE_READWRITE);
  writing.Close();
  EXPECT_CALL(Cut(file, 1), FALSE, ERROR_USER_MAPPED_FILE);
  second.Close();
  EXPECT_CALL(Cut(file, 1), FALSE, ERROR_USER_MAPPED_FILE);
  EXPECT_TRUE(CutAt(file.handle(), kBytes + 5)) << "growing is allowed";
  reading.Close();
  EXPECT_TRUE(CutAt(file.handle(), 1));
}

CHILD_ROLE(HoldByMapping) {
  Handle mapping;
  {
    const Handle file(CreateFileW(Widen(arguments[0]).c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    mapping = Handle(CreateFileMappingW(file, nullptr, std::stoul(arguments[1]), 0, 0, nullptr));
  }
  Say("held");
  Hear();
  return 0;
}

TEST(MappingHold, MappingOfAnotherProcess) {
  for (const DWORD protection : {PAGE_READONLY, PAGE_READWRITE}) {
    MappedFile file(kBytes);
    file.Close();
    ChildProcess child("HoldByMapping", {file.Path().string(), std::to_string(protection)});
    ASSERT_EQ(child.WaitForLine(), "held");
    ExpectHeld(file, protection == PAGE_READWRITE);
    child.Kill();
    ExpectFree(file);
  }
}

}  // namespace
