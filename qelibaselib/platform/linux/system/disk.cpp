// Disks: a root is the folder where a file system lies, since there are no drive letters.
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/small_file.h"
#include "qelibaselib/platform/linux/system/mount_table.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// Of a partition the disk that it is on is asked too: only that one knows.
bool IsRemovable(const Disk& disk) {
  for (const char* const place : {"/removable", "/../removable"})
    if (ReadSystemFile(("/sys/dev/block/" + disk.device + place).c_str()).starts_with('1')) return true;
  return false;
}

std::vector<Disk> ListDisks() {
  std::vector<Disk> disks = DisksOf(ReadSystemFile("/proc/self/mountinfo"));
  for (Disk& disk : disks)
    if (disk.type == DRIVE_FIXED && IsRemovable(disk)) disk.type = DRIVE_REMOVABLE;
  return disks;
}

DWORD CopyRoots(DWORD size, LPSTR roots, DWORD* result) try {
  std::string list;
  for (const Disk& disk : ListDisks()) list.append(disk.root).push_back('\0');
  *result = list.size();
  if (size <= list.size() || !roots)
    *result = list.size() + 1;
  else
    std::memcpy(roots, list.c_str(), list.size() + 1);
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  *result = 0;
  return ERROR_NOT_ENOUGH_MEMORY;
}

UINT TypeOf(LPCSTR root) try {
  std::string wanted = root ? root : "/";
  if (wanted.empty() || wanted.back() != '/') wanted += '/';
  for (const Disk& disk : ListDisks())
    if (disk.root == wanted) return disk.type;
  return DRIVE_NO_ROOT_DIR;
} catch (const std::bad_alloc&) {
  return DRIVE_UNKNOWN;
}

DWORD FreeSpace(LPCSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total, PULARGE_INTEGER free) {
  struct statvfs figures;
  int result;
  do {
    result = statvfs(folder ? folder : ".", &figures);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    if (errno == ENOENT) return ERROR_PATH_NOT_FOUND;
    return errno == ENXIO || errno == ENODEV ? ERROR_NOT_READY : ErrorFromErrno(errno);
  }
  const ULONGLONG unit = figures.f_frsize;
  if (available) available->QuadPart = figures.f_bavail * unit;
  if (total) total->QuadPart = figures.f_blocks * unit;
  if (free) free->QuadPart = figures.f_bfree * unit;
  return ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

DWORD GetLogicalDriveStringsA(DWORD size, LPSTR roots) {
  DWORD result;
  const DWORD error = qel::layer::CopyRoots(size, roots, &result);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return result;
}

UINT GetDriveTypeA(LPCSTR root) { return qel::layer::TypeOf(root); }

BOOL GetDiskFreeSpaceExA(LPCSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total, PULARGE_INTEGER free) {
  const DWORD error = qel::layer::FreeSpace(folder, available, total, free);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return error == ERROR_SUCCESS;
}
