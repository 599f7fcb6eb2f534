// Files that are held by somebody in this process.
#include "test/platform/files/files_here.h"
#include "test/support/handle.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

Handle Open(DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
  return CreateFileW(L"f", access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}
void TryToOpen(Record& record, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
  record.Line("open", Hex{access}, share, disposition);
  const Handle handle = ADD("f", CreateFileW(L"f", access, share, nullptr, disposition, 0, nullptr));
}

RECORD(files, SeveralHolders) {
  const FilesHere files;
  files.Write("f");
  Handle reader = Open(kR, kShareAll), both = Open(kRW, 3), third = Open(kR, 3);
  TryToOpen(record, kR, 1);
  CALL(DeleteFileW(L"f"));
  both.Close();
  TryToOpen(record, kR, 1);
  CALL(DeleteFileW(L"f"));
  third.Close();
  CALL(DeleteFileW(L"f"));  // whoever has it open lets it go
  reader.Close();
  record.Line("f").Note("exists", files.Exists("f"));
  TryToOpen(record, kW, 0, CREATE_NEW);
}

RECORD(files, HeldFileIsLeftAsItIs) {
  const FilesHere files;
  files.Write("f");
  Handle holder = Open(kR, 0);
  for (const DWORD disposition : Numbers{CREATE_NEW, CREATE_ALWAYS, OPEN_ALWAYS, TRUNCATE_EXISTING})
    TryToOpen(record, kW, kShareAll, disposition);
  CALL(SetFileAttributesW(L"f", FILE_ATTRIBUTE_READONLY));
  CALL(SetFileAttributesW(L"f", FILE_ATTRIBUTE_NORMAL));
  WIN32_FIND_DATAW data;
  CALL(FindClose(FindFirstFileW(L"f", &data)));
  HANDLE copy = nullptr;
  CALL(DuplicateHandle(GetCurrentProcess(), holder, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
  holder.Close();
  TryToOpen(record, kR, kShareAll);  // the duplicate keeps the share mode
  CloseHandle(copy);
  TryToOpen(record, kR, kShareAll);
  record.Line("f").Note("holds", files.Read("f"));
}

RECORD(files, DeleteOnCloseEndsWithTheLastHandle) {
  const FilesHere files;
  HANDLE copy = nullptr;
  Handle file = CreateFileW(L"f", kRW | DELETE, kShareAll, nullptr, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  CALL(DuplicateHandle(GetCurrentProcess(), file, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
  file.Close();
  record.Line("f").Note("exists", files.Exists("f"));
  CALL(CloseHandle(copy));
  record.Line("f").Note("exists", files.Exists("f"));
}

}  // namespace
}  // namespace qel::test
