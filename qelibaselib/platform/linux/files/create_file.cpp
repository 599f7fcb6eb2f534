// CreateFileW: from its arguments to a request, and from an opened file to a handle.
#include <cwchar>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/files/file_object.h"
#include "qelibaselib/platform/linux/win32/crt.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

struct AccessRight {
  DWORD bits;
  unsigned rights;
};
constexpr AccessRight kAccess[] = {
    {GENERIC_READ, kReading},   {GENERIC_WRITE, kWriting},   {GENERIC_ALL, kAllRights},
    {FILE_READ_DATA, kReading}, {FILE_WRITE_DATA, kWriting}, {DELETE, kDeleting},
    {FILE_READ_ATTRIBUTES, 0},  {FILE_WRITE_ATTRIBUTES, 0},  {SYNCHRONIZE, 0},
};
constexpr DWORD kFlags = FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_RANDOM_ACCESS |
                         FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS;

DWORD ReadRequest(DWORD access, DWORD share, DWORD disposition, DWORD flags, FileRequest& request) {
  if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING || (share & ~DWORD{kAllRights}) != 0 ||
      !AreKnownAttributes(flags & ~kFlags) || (disposition == TRUNCATE_EXISTING && !(access & GENERIC_WRITE)))
    return ERROR_INVALID_PARAMETER;
  request = {{0, share}, disposition};
  for (const AccessRight& known : kAccess) {
    if (access & known.bits) request.mode.access |= known.rights;
    access &= ~known.bits;
  }
  if (access != 0) return ERROR_INVALID_PARAMETER;
  request.attributes = flags & ~kFlags & ~FILE_ATTRIBUTE_DIRECTORY;
  request.folders = (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0;
  request.deletes = (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  request.writesThrough = (flags & FILE_FLAG_WRITE_THROUGH) != 0;
  if (request.deletes) request.mode.access |= kDeleting;
  return ERROR_SUCCESS;
}

// Windows takes NUL with a folder or an extension for the device, too; here a file may well have such a name.
bool IsNullDevice(LPCWSTR name) { return _wcsnicmp(name, L"NUL", 4) == 0 || _wcsnicmp(name, L"\\\\.\\NUL", 8) == 0; }

// Apart from the null device none has a name of this kind here.
bool IsNameOfDevice(LPCWSTR name) { return std::wcsncmp(name, L"\\\\.\\", 4) == 0; }

DWORD Create(LPCWSTR name, const FileRequest& request, bool overlapped, HANDLE& handle, bool& existed) {
  SystemPath path;
  if (name && IsNameOfDevice(name)) return ERROR_FILE_NOT_FOUND;
  if (const DWORD error = path.Parse(name)) return error;
  if (path.EndsInSeparator() && !request.folders) return path.SeparatorError();
  OpenedFile opened;
  if (const DWORD error = opened.Open(path, request)) return error;
  existed = opened.existed();
  auto* file = new (std::nothrow) FileObject(std::move(opened), overlapped);
  if (!file) return ERROR_NOT_ENOUGH_MEMORY;
  if (request.deletes) file->DeleteLater();
  handle = InsertHandle(file);
  return handle ? ERROR_SUCCESS : ERROR_TOO_MANY_OPEN_FILES;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                   DWORD flagsAndAttributes, HANDLE) {
  FileRequest request;
  HANDLE handle = nullptr;
  bool existed = false;
  DWORD error = ReadRequest(access, share, disposition, flagsAndAttributes, request);
  if (!error && name && IsNullDevice(name)) {
    name = L"/dev/null";
    request.disposition = disposition = OPEN_EXISTING;
    request.deletes = request.shared = false;
  }
  if (!error) error = Create(name, request, (flagsAndAttributes & FILE_FLAG_OVERLAPPED) != 0, handle, existed);
  const bool opensAnyway = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
  SetLastError(!error && existed && opensAnyway ? ERROR_ALREADY_EXISTS : error);
  return error ? INVALID_HANDLE_VALUE : handle;
}
