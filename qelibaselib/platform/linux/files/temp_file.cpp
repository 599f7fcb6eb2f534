// GetTempFileNameW and GetTempFileNameA.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cwchar>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/stringapiset.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr size_t kLongestFolder = MAX_PATH - 14;
constexpr unsigned kNumbers = 0xFFFF;

// Begins a name with the folder, a separator of the kind that the folder has, and three characters of the prefix.
DWORD StartName(LPCWSTR folder, LPCWSTR prefix, wchar_t* name, size_t& length) {
  SystemPath path;
  struct stat status;
  const size_t size = std::wcslen(folder);
  if (size > kLongestFolder) return ERROR_BUFFER_OVERFLOW;
  if (path.Parse(folder) || stat(path.text(), &status) != 0 || !S_ISDIR(status.st_mode)) return ERROR_DIRECTORY;
  std::wmemcpy(name, folder, size + 1);
  length = size;
  if (!IsSeparator(name[length - 1])) name[length++] = name[0] == L'/' ? L'/' : L'\\';
  for (int i = 0; prefix && i < 3 && prefix[i]; ++i) name[length++] = prefix[i];
  return ERROR_SUCCESS;
}

void AppendNumber(wchar_t* name, size_t length, unsigned number) {
  std::swprintf(name + length, MAX_PATH - length, L"%X.tmp", number);
}

// Each process begins somewhere else, so that two seldom try the same names.
unsigned FirstNumber() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned>(now.tv_nsec / 1000 + now.tv_sec * 61 + getpid() * 257ll) % kNumbers;
}

DWORD MakeFile(wchar_t* name, size_t length, unsigned& number) {
  const unsigned first = FirstNumber();
  for (unsigned i = 0; i < kNumbers; ++i) {
    number = (first + i) % kNumbers + 1;
    AppendNumber(name, length, number);
    SystemPath path;
    if (const DWORD error = path.Parse(name)) return error;
    const Descriptor file(open(path.text(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.get() >= 0) return ERROR_SUCCESS;
    if (errno != EEXIST) return PathError(errno, path);
  }
  return ERROR_FILE_EXISTS;
}

// Returns the number, 0 with the error in `error`.
unsigned TempFileName(LPCWSTR folder, LPCWSTR prefix, UINT unique, wchar_t* name, DWORD& error) {
  size_t length = 0;
  unsigned number = unique & kNumbers;
  name[0] = 0;
  error = StartName(folder, prefix, name, length);
  if (!error && number != 0)
    AppendNumber(name, length, number);
  else if (!error)
    error = MakeFile(name, length, number);
  if (error) name[0] = 0;
  return error ? 0 : number;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

UINT GetTempFileNameW(LPCWSTR folder, LPCWSTR prefix, UINT unique, LPWSTR name) {
  if (!folder || !name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  *name = 0;  // faults before a file is made
  DWORD error;
  wchar_t made[MAX_PATH];
  const unsigned number = TempFileName(folder, prefix, unique, made, error);
  std::wcscpy(name, made);
  if (error || (unique & kNumbers) == 0) SetLastError(error);
  return number;
}

UINT GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name) {
  wchar_t wideFolder[MAX_PATH], widePrefix[MAX_PATH], made[MAX_PATH];
  if (folder && !name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (!folder || !MultiByteToWideChar(CP_ACP, 0, folder, -1, wideFolder, MAX_PATH)) {
    SetLastError(folder ? ERROR_BUFFER_OVERFLOW : ERROR_DIRECTORY);
    return 0;
  }
  *name = 0;  // as above
  if (!prefix || !MultiByteToWideChar(CP_ACP, 0, prefix, -1, widePrefix, MAX_PATH)) widePrefix[0] = 0;
  const UINT number = GetTempFileNameW(wideFolder, widePrefix, unique, made);
  // As on Windows the caller's room is MAX_PATH, in characters of this code page.
  if (number && !WideCharToMultiByte(CP_ACP, 0, made, -1, name, MAX_PATH, nullptr, nullptr)) {
    if ((unique & kNumbers) == 0) DeleteFileW(made);
    SetLastError(ERROR_BUFFER_OVERFLOW);
    return 0;
  }
  return number;
}
