// What a search finds, in which order, and what it refuses.
#include <ctime>

#include "test/platform/files/files_here.h"
#include "test/support/handle.h"
#include "test/support/record.h"

namespace qel::test {
namespace {

RECORD(files, Searches) {
  const FilesHere files;
  files.MakeFolder("d");
  for (const char* name : {"10", ".hidden", "9", "a-b", "a.htm", "a.txt", "a_b", "b.html", "Bdir.x", "C.TX"})
    files.Write(std::string("d/") + name);
  files.Write("file");
  files.MakeFolder("empty");
  for (const wchar_t* pattern : {L"d\\*.*",
                                 L"d\\*",
                                 L"d/a*",
                                 L"d\\?.txt",
                                 L"d\\??????.htm",
                                 L"d\\*.",
                                 L"d\\*..",
                                 L"d\\*. ",
                                 L"d\\*  ",
                                 L"d\\*.*.",
                                 L"d\\?. .",
                                 L"d\\a*t. .",
                                 L"d\\a?b",
                                 L"d\\?",
                                 L"d\\x*",
                                 L"d\\9",
                                 L"d",
                                 L"empty\\*.*",
                                 L"empty\\x*",
                                 L"file",
                                 L"missing",
                                 L"empty\\",
                                 L"nodir\\*.*",
                                 L"nodir\\x",
                                 L"",
                                 L"Q:\\*.*",
                                 L"file\\*.*",
                                 L"?:\\???",
                                 L"d*\\a",
                                 L"a|b",
                                 L"\"b.txt\"",
                                 L"a<b",
                                 static_cast<const wchar_t*>(nullptr)}) {
    record.Line();
    WIN32_FIND_DATAW data;
    const HANDLE find = ADD(pattern, FindFirstFileW(pattern, &data));
    if (find == INVALID_HANDLE_VALUE) continue;
    std::wstring names = data.cFileName;
    while (FindNextFileW(find, &data)) names += L" " + std::wstring(data.cFileName);
    record.Note("end", GetLastError());
    record.Note("names", names);
    FindClose(find);
  }
}

RECORD(files, FindData) {
  const FilesHere files;
  files.MakeFolder("d");
  const Handle file = CreateFileW(L"large", kRW, kShareAll, nullptr, CREATE_NEW, FILE_ATTRIBUTE_HIDDEN, nullptr);
  LARGE_INTEGER end;
  end.QuadPart = 0x100000003;
  SetFilePointerEx(file, end, nullptr, FILE_BEGIN);
  DWORD bytes = 0;
  WriteFile(file, "x", 1, &bytes, nullptr);
  for (const wchar_t* pattern : {L"large", L"lar*", L"d"}) {
    WIN32_FIND_DATAW data = {};
    FindClose(FindFirstFileW(pattern, &data));
    record.Line(data.cFileName);
    record.Note("attributes", Hex{data.dwFileAttributes});
    record.Note("high size", data.nFileSizeHigh);
    record.Note("low size", data.nFileSizeLow);
    const ULONGLONG written =
        static_cast<ULONGLONG>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
    const auto now = static_cast<ULONGLONG>(std::time(nullptr)) + 11'644'473'600;  // seconds from 1601
    const auto age = static_cast<LONGLONG>(now - written / 10'000'000);
    record.Note("written now", age >= -60 && age <= 60);
  }
}

}  // namespace
}  // namespace qel::test
