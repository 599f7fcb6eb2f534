// Files, searches, folders.
#include <cstring>
#include <ctime>

#include "test/platform/recorded/bind_call.h"

namespace qel::test {
namespace {

std::string Moved(BOOL succeeded, DWORD bytes) {
  const DWORD error = GetLastError();
  return std::to_string(succeeded) + ShowError(error) + " *" + std::to_string(bytes);
}

HANDLE Open(const wchar_t* name, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
  return CreateFileW(name, access, share, nullptr, disposition, flags, nullptr);
}

std::string Read(HANDLE file, DWORD length, OVERLAPPED* offset) {
  char buffer[100] = {};
  DWORD bytes = 99;
  const BOOL succeeded = ReadFile(file, buffer, length, &bytes, offset);
  return Moved(succeeded, bytes) + (bytes ? " " + Quoted(std::string(buffer, bytes)) : "");
}
std::string Write(HANDLE file, const char* text, OVERLAPPED* offset) {
  DWORD bytes = 99;
  const BOOL succeeded = WriteFile(file, text, static_cast<DWORD>(std::strlen(text)), &bytes, offset);
  return Moved(succeeded, bytes);
}

// The wait for the end of the transfer is a part of it.
template <class Transfer>
std::string Overlapped(HANDLE file, DWORD offset, Transfer transfer) {
  OVERLAPPED overlapped = {};
  overlapped.Offset = offset;
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD bytes = 0;
  SetLastError(kNoError);
  std::string answer = std::to_string(transfer(&overlapped)) + ShowError(GetLastError()) + " then ";
  SetLastError(kNoError);
  const BOOL succeeded = GetOverlappedResult(file, &overlapped, &bytes, TRUE);
  answer += Moved(succeeded, bytes) + " signalled " + std::to_string(WaitForSingleObject(overlapped.hEvent, 0) == 0);
  CloseHandle(overlapped.hEvent);
  return answer;
}
std::string ReadOverlapped(HANDLE file, DWORD length, DWORD offset) {
  char buffer[100] = {};
  const std::string answer =
      Overlapped(file, offset, [&](OVERLAPPED* at) { return ReadFile(file, buffer, length, nullptr, at); });
  return answer + " " + Quoted(std::string(buffer));
}
std::string WriteOverlapped(HANDLE file, const char* text, DWORD offset) {
  return Overlapped(file, offset, [&](OVERLAPPED* at) {
    return WriteFile(file, text, static_cast<DWORD>(std::strlen(text)), nullptr, at);
  });
}

std::string Find(const wchar_t* pattern) {
  WIN32_FIND_DATAW data;
  const HANDLE find = FindFirstFileW(pattern, &data);
  if (find == INVALID_HANDLE_VALUE) return "invalid" + ShowError(GetLastError());
  std::string names;
  do names += std::string(data.cFileName, data.cFileName + std::wcslen(data.cFileName)) + " ";
  while (FindNextFileW(find, &data));
  const DWORD error = GetLastError();
  FindClose(find);
  return names + "then" + ShowError(error);
}

// Attributes, size, and whether it was written a moment ago.
std::string FindData(const wchar_t* pattern) {
  WIN32_FIND_DATAW data = {};
  FindClose(FindFirstFileW(pattern, &data));
  const ULONGLONG written =
      static_cast<ULONGLONG>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
  const auto now = static_cast<ULONGLONG>(std::time(nullptr)) + 11'644'473'600;  // seconds from 1601
  const auto age = static_cast<LONGLONG>(now - written / 10'000'000);
  char text[100];
  std::snprintf(text, sizeof text, "attributes 0x%lX size %lu:%lu %s", data.dwFileAttributes, data.nFileSizeHigh,
                data.nFileSizeLow, age >= -60 && age <= 60 ? "new" : "old");
  return text;
}

std::string SameTimes(const wchar_t* first, const wchar_t* second) {
  WIN32_FIND_DATAW one = {}, other = {};
  FindClose(FindFirstFileW(first, &one));
  FindClose(FindFirstFileW(second, &other));
  return std::memcmp(&one.ftLastWriteTime, &other.ftLastWriteTime, sizeof(FILETIME)) == 0 ? "yes" : "no";
}

std::string Attributes(const wchar_t* name) {
  const DWORD attributes = GetFileAttributesW(name);
  if (attributes == INVALID_FILE_ATTRIBUTES) return "-1" + ShowError(GetLastError());
  char text[20];
  std::snprintf(text, sizeof text, "0x%lX", attributes);
  return text;
}

std::string SetAttributes(const wchar_t* name, DWORD attributes) {
  const BOOL succeeded = SetFileAttributesW(name, attributes);
  return std::to_string(succeeded) + ShowError(GetLastError()) + " " + Attributes(name);
}

// Read-only does not hold against the one who makes the file.
std::string NewAttributes(DWORD attributes) {
  const HANDLE file = Open(L"new", GENERIC_WRITE, 0, CREATE_ALWAYS, attributes);
  DWORD bytes = 0;
  const BOOL written = WriteFile(file, "x", 1, &bytes, nullptr);
  CloseHandle(file);
  const std::string shown = Attributes(L"new");
  SetFileAttributesW(L"new", FILE_ATTRIBUTE_NORMAL);
  DeleteFileW(L"new");
  return std::to_string(written) + " " + shown;
}

std::string CopyBeside(const wchar_t* from, const wchar_t* to, const wchar_t* held, DWORD access, DWORD share) {
  const HANDLE holder = Open(held, access, share, OPEN_EXISTING, 0);
  SetLastError(kNoError);
  const BOOL succeeded = CopyFileW(from, to, FALSE);
  const DWORD error = GetLastError();
  CloseHandle(holder);
  return std::to_string(succeeded) + ShowError(error);
}

// The system chooses the number, so only what can be said of any is shown.
std::string TemporaryFile(const wchar_t* folder, UINT unique) {
  wchar_t first[MAX_PATH] = L"", second[MAX_PATH] = L"";
  if (GetTempFileNameW(folder, L"pre", unique, first) == 0) return "0" + ShowError(GetLastError());
  const DWORD error = GetLastError();
  GetTempFileNameW(folder, L"pre", unique, second);
  return "given" + ShowError(error) + " " + Attributes(first) +
         (std::wcscmp(first, second) != 0 ? " each another" : "");
}

const CallRegistration kCalls([](auto& calls) {
  constexpr Closer kClose = [](void* handle) { CloseHandle(handle); };
  calls["open"] = BindLambda(&Open, kClose);
  calls["read"] = BindLambda(&Read);
  calls["write"] = BindLambda(&Write);
  calls["read-overlapped"] = BindLambda(&ReadOverlapped);
  calls["write-overlapped"] = BindLambda(&WriteOverlapped);
  calls["find"] = BindLambda(&Find);
  calls["find-data"] = BindLambda(&FindData);
  calls["same-times"] = BindLambda(&SameTimes);
  calls["attributes"] = BindLambda(&Attributes);
  calls["set-attributes"] = BindLambda(&SetAttributes);
  calls["new-attributes"] = BindLambda(&NewAttributes);
  calls["copy-beside"] = BindLambda(&CopyBeside);
  calls["temporary-file"] = BindLambda(&TemporaryFile);
  calls["make-file"] = BindLambda([](const char* name, const char* contents) {
    WriteWholeFile(name, contents);
    return std::string("made");
  });
  calls["make-folder"] = BindLambda(
      [](const char* name) { return std::string(std::filesystem::create_directory(name) ? "made" : "there"); });
  calls["go"] = BindLambda([](const wchar_t* folder) {
    std::filesystem::current_path(folder);
    return std::string("there");
  });
  calls["contents"] = BindLambda([](const char* name) { return Quoted(ReadWholeFile(name).substr(0, 40)); });
  calls["exists"] =
      BindLambda([](const wchar_t* name) { return std::string(std::filesystem::exists(name) ? "yes" : "no"); });
  calls["sleep"] = BindLambda([](DWORD ms) {
    Sleep(ms);
    return std::string("done");
  });
  calls["CreateDirectoryW"] = BindLambda([](const wchar_t* name) { return CreateDirectoryW(name, nullptr); });
  BIND(CopyFileW);
  BIND(DeleteFileW);
  BIND(FlushFileBuffers);
  BIND(GetFileSizeEx);
  BIND(GetTempFileNameA);
  BIND(GetTempFileNameW);
  BIND(LockFileEx);
  BIND(MoveFileW);
  BIND(RemoveDirectoryW);
  BIND(SetEndOfFile);
  BIND(SetFileAttributesW);
  BIND(SetFilePointerEx);
  BIND(UnlockFileEx);
});

}  // namespace
}  // namespace qel::test
