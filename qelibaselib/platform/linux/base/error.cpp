#include "qelibaselib/platform/linux/base/error.h"

#include <cerrno>

#include "qelibaselib/platform/linux/win32/winerror.h"

namespace {
thread_local constinit DWORD t_lastError = ERROR_SUCCESS;

struct Row {
  int number;
  DWORD error;
};
constexpr Row kRows[] = {
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ELOOP, ERROR_PATH_NOT_FOUND},
    {EACCES, ERROR_ACCESS_DENIED},  // with EPERM, EISDIR and EROFS: one answer, as Windows gives for all of them
    {EPERM, ERROR_ACCESS_DENIED},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EROFS, ERROR_ACCESS_DENIED},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EEXIST, ERROR_FILE_EXISTS},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {EBUSY, ERROR_SHARING_VIOLATION},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {ENOSPC, ERROR_DISK_FULL},  // with EDQUOT: a full quota reads as a full disk
    {EDQUOT, ERROR_DISK_FULL},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {ENAMETOOLONG, ERROR_PATH_NOT_FOUND},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EAGAIN, ERROR_NO_SYSTEM_RESOURCES},
    {ENOLCK, ERROR_NO_SYSTEM_RESOURCES},
    {EBADF, ERROR_INVALID_HANDLE},
    {EFAULT, ERROR_NOACCESS},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EIO, ERROR_IO_DEVICE},
    {ESPIPE, ERROR_INVALID_FUNCTION},
    {EPIPE, ERROR_BROKEN_PIPE},
    {ENOTSUP, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_CALL_NOT_IMPLEMENTED},
};
}  // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

namespace qel::layer {
DWORD ErrorFromErrno(int number) {
  for (const Row& row : kRows)
    if (row.number == number) return row.error;
  return ERROR_GEN_FAILURE;
}
}  // namespace qel::layer
