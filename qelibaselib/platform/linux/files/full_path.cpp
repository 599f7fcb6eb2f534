// Names as absolute paths.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"

namespace qel::layer {
namespace {

std::wstring ShowPath(const char* path) {
  std::wstring shown;
  for (NameReader reader(path, path + std::strlen(path)); !reader.AtEnd();) shown += reader.Read();
  return shown;
}

// Puts the current folder in front of a relative path and resolves the ".." that it begins with.
DWORD MakeAbsolute(SystemPath& path) {
  char current[SystemPath::kSize];
  if (!getcwd(current, sizeof current)) return ErrorFromErrno(errno);
  const std::wstring joined = ShowPath(current) + L'/' + ShowPath(path.text());
  return path.Parse(joined.c_str());
}

DWORD MakeFullPath(LPCWSTR name, std::wstring& full) try {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  const bool endsInSeparator = path.EndsInSeparator();
  if (!path.IsAbsolute()) {
    if (const DWORD error = MakeAbsolute(path)) return error;
  }
  full = ShowPath(path.text());
  if (endsInSeparator && !path.IsRoot()) full += L'/';
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

LPWSTR FindLastComponent(LPWSTR path) {
  LPWSTR last = path + std::wcslen(path);
  while (last[-1] != L'/') --last;  // an absolute path begins with one
  return *last ? last : nullptr;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

DWORD GetFullPathNameW(LPCWSTR name, DWORD size, LPWSTR full, LPWSTR* lastComponent) {
  std::wstring path;
  if (!ReportResult(MakeFullPath(name, path))) return 0;
  const auto length = static_cast<DWORD>(path.size());
  if (length >= size) return length + 1;
  std::memcpy(full, path.c_str(), (length + 1) * sizeof(wchar_t));
  if (lastComponent) *lastComponent = FindLastComponent(full);
  return length;
}
