// Path services, conversions, text streams.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "test/platform/recorded/bind_call.h"

namespace qel::test {
namespace {

std::string OpenStream(const wchar_t* name, const wchar_t* mode) {
  errno = 0;
  SetLastError(kNoError);
  FILE* const file = _wfopen(name, mode);
  if (!file) return "refused, errno " + std::to_string(errno) + ShowError(GetLastError());
  std::fclose(file);
  return "open";
}
std::string OpenBeside(const wchar_t* name, const wchar_t* mode, DWORD access, DWORD share) {
  const HANDLE holder = CreateFileW(name, access, share, nullptr, OPEN_EXISTING, 0, nullptr);
  const std::string answer = OpenStream(name, mode);
  CloseHandle(holder);
  return answer;
}
// Also what the position of a text was before and after.
std::string Put(const wchar_t* name, const wchar_t* mode, const char* text) {
  FILE* const file = _wfopen(name, mode);
  if (!file) return "refused";
  const long before = std::ftell(file);
  std::fputs(text, file);
  const long after = std::ftell(file);
  std::fclose(file);
  return std::wcschr(mode, L'b') ? "done" : std::to_string(before) + " to " + std::to_string(after);
}
std::string Get(const wchar_t* name, const wchar_t* mode, DWORD buffer) {
  FILE* const file = _wfopen(name, mode);
  if (!file) return "refused";
  std::setvbuf(file, nullptr, _IOFBF, buffer);
  std::string text;
  for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
  std::rewind(file);
  const std::string first(1, static_cast<char>(std::fgetc(file)));
  std::fclose(file);
  return Quoted(text) + (first == text.substr(0, 1) ? "" : " and from the start " + Quoted(first));
}

int Sign(int order) { return (order > 0) - (order < 0); }
const unsigned char* Bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

const CallRegistration kCalls([](auto& calls) {
  BIND(PathCombineW);
  BIND(PathIsRootW);
  BIND(PathRemoveFileSpecW);
  calls["WideCharToMultiByte"] = BindLambda([](UINT page, const wchar_t* wide, int length, char* narrow, int room) {
    return WideCharToMultiByte(page, 0, wide, length, narrow, room, nullptr, nullptr);
  });
  calls["MultiByteToWideChar"] = BindLambda([](UINT page, const char* narrow, int length, wchar_t* wide, int room) {
    return MultiByteToWideChar(page, 0, narrow, length, wide, room);
  });
  calls["PathRemoveBackslashW"] = BindLambda([](wchar_t* path) { return PathRemoveBackslashW(path) - path; });
  calls["PathUnquoteSpacesW"] = BindLambda([](wchar_t* path) {
    PathUnquoteSpacesW(path);
    return std::string("done");
  });
  calls["PathFindFileNameW"] = BindLambda([](const wchar_t* path) {
    const wchar_t* const name = PathFindFileNameW(path);
    return name ? Quoted(std::wstring(name)) : "null";
  });
  calls["PathFindFileNameA"] =
      BindLambda([](const char* path) { return Quoted(std::string(PathFindFileNameA(path))); });
  calls["combine-into-itself"] = BindLambda([](wchar_t* folder, const wchar_t* more) {
    return std::string(PathCombineW(folder, folder, more) == folder ? "same" : "other");
  });
  calls["make-folders"] =
      BindLambda([](const wchar_t* path) { return std::to_string(SHCreateDirectoryExW(nullptr, path, nullptr)); });
  calls["wcsncpy_s"] = BindLambda([](const wchar_t* text, DWORD count) {
    wchar_t target[8] = L"zzzzzzz";  // the call is told of four
    const int result = wcsncpy_s(target, 4, text, static_cast<size_t>(static_cast<int>(count)));
    return std::to_string(result) + " " + Quoted(std::wstring(target, result == ERANGE ? std::wcslen(target) : 6));
  });
  calls["_mbsnbcmp"] = BindLambda([](const char* first, const char* second, DWORD count) {
    return Sign(_mbsnbcmp(Bytes(first), Bytes(second), count));
  });
  calls["_wcsnicmp"] = BindLambda(
      [](const wchar_t* first, const wchar_t* second, DWORD count) { return Sign(_wcsnicmp(first, second, count)); });
  calls["stream"] = BindLambda(&OpenStream);
  calls["stream-beside"] = BindLambda(&OpenBeside);
  calls["put"] = BindLambda(&Put);
  calls["get"] = BindLambda(&Get);
});

}  // namespace
}  // namespace qel::test
