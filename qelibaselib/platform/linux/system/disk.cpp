// Disks: a root is the folder where a file system lies, since there are no drive letters.
#include <sys/stat.h>

#include <cstring>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/small_file.h"
#include "qelibaselib/platform/linux/system/disk_question.h"
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

// One that may never answer is not asked: a folder is what is mounted most often.
bool IsFolder(const Disk& disk) {
  struct stat status;
  return disk.mayHang || (stat(disk.root.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
}

std::string ReadMountInfo() { return ReadSystemFile("/proc/self/mountinfo"); }

DWORD CopyRoots(DWORD size, LPSTR roots, DWORD* result) try {
  std::string list;
  for (const Disk& disk : ListDisks(ReadMountInfo(), &IsFolder)) list.append(disk.root).push_back('\0');
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
  const std::optional<Disk> disk = FindDisk(ReadMountInfo(), wanted);
  if (!disk || !IsFolder(*disk)) return DRIVE_NO_ROOT_DIR;
  return disk->type == DRIVE_FIXED && IsRemovable(*disk) ? DRIVE_REMOVABLE : disk->type;
} catch (const std::bad_alloc&) {
  return DRIVE_UNKNOWN;
}

DWORD FreeSpace(LPCSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total, PULARGE_INTEGER free) {
  struct statvfs figures;
  if (const DWORD error = AskDisk(folder ? folder : ".", &figures)) return error;
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
  return qel::layer::ReportResult(qel::layer::FreeSpace(folder, available, total, free));
}
