/// @file
/// Opening, reading and writing files; attributes, deletion, moving, copying; searching folders.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

#define GENERIC_READ 0x80000000ul
#define GENERIC_WRITE 0x40000000ul
#define GENERIC_ALL 0x10000000ul
#define FILE_READ_DATA 0x1ul
#define FILE_WRITE_DATA 0x2ul
#define FILE_READ_ATTRIBUTES 0x80ul
#define FILE_WRITE_ATTRIBUTES 0x100ul
#define DELETE 0x00010000ul
#define FILE_SHARE_READ 1ul
#define FILE_SHARE_WRITE 2ul
#define FILE_SHARE_DELETE 4ul
#define CREATE_NEW 1ul
#define CREATE_ALWAYS 2ul
#define OPEN_EXISTING 3ul
#define OPEN_ALWAYS 4ul
#define TRUNCATE_EXISTING 5ul
#define FILE_ATTRIBUTE_READONLY 0x1ul
#define FILE_ATTRIBUTE_HIDDEN 0x2ul
#define FILE_ATTRIBUTE_SYSTEM 0x4ul
#define FILE_ATTRIBUTE_DIRECTORY 0x10ul
#define FILE_ATTRIBUTE_ARCHIVE 0x20ul
#define FILE_ATTRIBUTE_DEVICE 0x40ul
#define FILE_ATTRIBUTE_NORMAL 0x80ul
#define FILE_ATTRIBUTE_TEMPORARY 0x100ul
#define FILE_ATTRIBUTE_REPARSE_POINT 0x400ul
#define IO_REPARSE_TAG_SYMLINK 0xA000000Cul
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFul
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000ul
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000ul
#define FILE_FLAG_RANDOM_ACCESS 0x10000000ul
#define FILE_FLAG_WRITE_THROUGH 0x80000000ul
#define FILE_FLAG_OVERLAPPED 0x40000000ul
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000ul
#define FILE_BEGIN 0ul
#define FILE_CURRENT 1ul
#define FILE_END 2ul
#define LOCKFILE_FAIL_IMMEDIATELY 1ul
#define LOCKFILE_EXCLUSIVE_LOCK 2ul

struct OVERLAPPED {
  ULONG_PTR Internal, InternalHigh;
  union {
    struct {
      DWORD Offset, OffsetHigh;
    };
    PVOID Pointer;
  };
  HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime, ftLastAccessTime, ftLastWriteTime;
  DWORD nFileSizeHigh, nFileSizeLow, dwReserved0, dwReserved1;
  WCHAR cFileName[MAX_PATH];
  WCHAR cAlternateFileName[14];
};
using LPWIN32_FIND_DATAW = WIN32_FIND_DATAW*;

extern "C" {
/// Names: both separators separate, there are no drive letters, case counts as the file system says, and dots and
/// blanks at the end count. A character that no Win32 name holds is shown as U+F000 plus the character. Share modes
/// hold among the programs that use this layer. A read-only file is one without any write bit. Inheriting and templates
/// are not supported.
QEL_LAYER HANDLE WINAPI CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                    DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile);
/// With FILE_FLAG_OVERLAPPED the transfer is done at once, and ERROR_IO_PENDING is given all the same.
QEL_LAYER BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                               LPOVERLAPPED overlapped);
QEL_LAYER BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
                                LPOVERLAPPED overlapped);
QEL_LAYER BOOL WINAPI GetOverlappedResult(HANDLE file, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait);
QEL_LAYER BOOL WINAPI SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method);
QEL_LAYER BOOL WINAPI GetFileSizeEx(HANDLE file, PLARGE_INTEGER size);
QEL_LAYER BOOL WINAPI SetEndOfFile(HANDLE file);
QEL_LAYER BOOL WINAPI FlushFileBuffers(HANDLE file);
/// Ranges hold against ReadFile and WriteFile of other handles of this process, and of those that another process opens
/// later; not against ones that it had open already. Offsets end at 2^63 - 256. A handle that asks for what it has
/// locked itself fails at once, also when it would wait.
QEL_LAYER BOOL WINAPI LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD bytesLow, DWORD bytesHigh,
                                 LPOVERLAPPED overlapped);
QEL_LAYER BOOL WINAPI UnlockFileEx(HANDLE file, DWORD reserved, DWORD bytesLow, DWORD bytesHigh,
                                   LPOVERLAPPED overlapped);

/// The name is gone at once, also when the file is open with FILE_SHARE_DELETE. A file that a process has mapped is not
/// deleted (ERROR_ACCESS_DENIED). Of a link, the link itself is deleted.
QEL_LAYER BOOL WINAPI DeleteFileW(LPCWSTR name);
QEL_LAYER BOOL WINAPI MoveFileW(LPCWSTR existing, LPCWSTR target);
QEL_LAYER BOOL WINAPI CopyFileW(LPCWSTR existing, LPCWSTR target, BOOL failIfExists);
/// Hidden, system, archive and temporary, and read-only of a folder, need a file system with extended attributes.
/// Where it has none, archive and read-only are kept. Clearing read-only gives the owner alone the right to write.
QEL_LAYER DWORD WINAPI GetFileAttributesW(LPCWSTR name);
QEL_LAYER BOOL WINAPI SetFileAttributesW(LPCWSTR name, DWORD attributes);
QEL_LAYER BOOL WINAPI CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES security);
/// The new folder gets the attributes of the template and its rights less the umask, the owner's always.
QEL_LAYER BOOL WINAPI CreateDirectoryExW(LPCWSTR templateFolder, LPCWSTR name, LPSECURITY_ATTRIBUTES security);
QEL_LAYER BOOL WINAPI RemoveDirectoryW(LPCWSTR name);
/// Fails for a name that no file can have, with the error that using it would give.
QEL_LAYER DWORD WINAPI GetFullPathNameW(LPCWSTR name, DWORD size, LPWSTR full, LPWSTR* lastComponent);
QEL_LAYER UINT WINAPI GetTempFileNameW(LPCWSTR folder, LPCWSTR prefix, UINT unique, LPWSTR name);
QEL_LAYER UINT WINAPI GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name);

/// Patterns follow the rules of NTFS, but case counts. A link to a folder is no folder where it is one of several
/// entries: no walk leaves its tree by one. Devices, pipes and sockets have the attribute DEVICE alone and the size 0.
/// Entries that cannot be asked about, or whose names are too long, are left out, and the search ends with their error.
QEL_LAYER HANDLE WINAPI FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW data);
QEL_LAYER BOOL WINAPI FindNextFileW(HANDLE find, LPWIN32_FIND_DATAW data);
QEL_LAYER BOOL WINAPI FindClose(HANDLE find);
}
