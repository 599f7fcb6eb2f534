#include "qelibaselib/modulestatus/status_sections.h"

#include <cstring>
#include <memory>
#include <new>

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/memory/memory.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/mebibytes.h"
#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/modulestatus/source_name.h"
#include "qelibaselib/settings/version_reader.h"

namespace qel::report {
namespace {

constexpr int kVersionHeapCheckAtEntry = 721;
constexpr int kVersionHeapCheckAtExit = 750;
constexpr int kSystemHeapCheckAtEntry = 487;
constexpr int kSystemHeapCheckAtExit = 504;
constexpr int kMemoryHeapCheckAtEntry = 512;
constexpr int kClearMemoryStatusLine = 518;
constexpr int kMemoryHeapCheckAtExit = 532;
constexpr int kDiskHeapCheckAtEntry = 656;
constexpr int kDiskHeapCheckAtExit = 714;
constexpr DWORD kUsualDriveListCharacters = 4096;

unsigned int AddressBits(const void* address) { return reinterpret_cast<ULONG_PTR>(address); }

// The roots of all drives, one after the other; an empty one ends them. None when they cannot be read.
class DriveList {
 public:
  DriveList() {
    const DWORD length = Read(usual_, kUsualDriveListCharacters);
    if (length < kUsualDriveListCharacters) return;
    larger_.reset(new (std::nothrow) char[length]);
    if (larger_) Read(larger_.get(), length);
  }
  const char* roots() const { return roots_; }

 private:
  // Returns the length that is needed when the room is too small.
  DWORD Read(char* room, DWORD size) {
    room[0] = '\0';
    const DWORD length = GetLogicalDriveStringsA(size, room);
    roots_ = length < size ? room : "";
    return length;
  }

  char usual_[kUsualDriveListCharacters];
  std::unique_ptr<char[]> larger_;
  const char* roots_;
};

void WriteDrive(ReportStream& out, const char* root) {
  const UINT type = GetDriveTypeA(root);
  if (type == DRIVE_REMOVABLE || type == DRIVE_CDROM) return;
  ULARGE_INTEGER available;
  ULARGE_INTEGER total;
  ULARGE_INTEGER free;
  if (GetDiskFreeSpaceExA(root, &available, &total, &free)) {
    out.Print("%s(%u) : FreeBytesAvailable=%I64u, TotalNumberOfBytes=%I64u, TotalNumberOfFreeBytes=%I64u\n", root, type,
              available.QuadPart, total.QuadPart, free.QuadPart);
  } else {
    out.Print("%s(%u) : Drive not ready(0x%lx)\n", root, type, GetLastError());
  }
}

}  // namespace

int WriteSystemVersion(std::FILE* stream) {
  ReportStream out(stream);
  GuardedReport(QEL_HERE, "DebugOutOsVersion", [&] {
    CheckHeap(kVersionHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kSystemVersionHeading);
    OSVERSIONINFOEXW version;
    if (ReadSystemVersion(version)) {
      out.Print("MajorVersion=%lu\n", version.dwMajorVersion);
      out.Print("MinorVersion=%lu\n", version.dwMinorVersion);
      out.Print("BuildNumber=%lu\n", version.dwBuildNumber);
      out.Print("PlatformId=%lu\n", version.dwPlatformId);
      out.Print("CSDVersion=%ls\n", version.szCSDVersion);
    }
    CheckHeap(kVersionHeapCheckAtExit);
  });
  return out.written();
}

int WriteSystemInformation(std::FILE* stream) {
  ReportStream out(stream);
  GuardedReport(QEL_HERE, "DebugOutSystemInfo", [&] {
    CheckHeap(kSystemHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kSystemHeading);
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    out.Print("dwPageSize                  = %d\n", static_cast<int>(system.dwPageSize));
    out.Print("lpMinimumApplicationAddress = %08x(H)\n", AddressBits(system.lpMinimumApplicationAddress));
    out.Print("lpMaximumApplicationAddress = %08x(H)\n", AddressBits(system.lpMaximumApplicationAddress));
    out.Print("dwActiveProcessorMask       = %08x(H)\n", static_cast<unsigned int>(system.dwActiveProcessorMask));
    out.Print("dwNumberOfProcessors        = %u\n", static_cast<unsigned int>(system.dwNumberOfProcessors));
    out.Print("dwProcessorType             = %u\n", static_cast<unsigned int>(system.dwProcessorType));
    out.Print("dwAllocationGranularity     = %08x(H)\n", static_cast<unsigned int>(system.dwAllocationGranularity));
    out.Print("wProcessorLevel             = %04x(H)\n", system.wProcessorLevel);
    out.Print("wProcessorRevision          = %04x(H)\n", system.wProcessorRevision);
    CheckHeap(kSystemHeapCheckAtExit);
  });
  return out.written();
}

int WriteGlobalMemory(std::FILE* stream) {
  ReportStream out(stream);
  GuardedReport(QEL_HERE, "DebugOutGlobalMemoryStatus", [&] {
    CheckHeap(kMemoryHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kGlobalMemoryHeading);
    MEMORYSTATUSEX status;
    _MemSet(&status, 0, sizeof status, kClearMemoryStatusLine, kSourceName);
    status.dwLength = sizeof status;
    GlobalMemoryStatusEx(&status);
    out.Print("dwMemoryLoad             = %d\n", static_cast<int>(status.dwMemoryLoad));
    const struct {
      const char* name;
      DWORDLONG bytes;
    } lines[] = {
        {"ullTotalPhys", status.ullTotalPhys},
        {"ullAvailPhys", status.ullAvailPhys},
        {"ullTotalPageFile", status.ullTotalPageFile},
        {"ullAvailPageFile", status.ullAvailPageFile},
        {"ullTotalVirtual", status.ullTotalVirtual},
        {"ullAvailVirtual", status.ullAvailVirtual},
        {"ullAvailExtendedVirtual", status.ullAvailExtendedVirtual},
    };
    for (const auto& [name, bytes] : lines) {
      out.Print("%-24s = %11I64u Bytes ( %6I64u MBytes )\n", name, bytes, Mebibytes(bytes));
    }
    CheckHeap(kMemoryHeapCheckAtExit);
  });
  return out.written();
}

int WriteDiskFreeSpace(std::FILE* stream) {
  ReportStream out(stream);
  GuardedReport(QEL_HERE, "DebugOutDiskFreeSpace", [&] {
    CheckHeap(kDiskHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kDiskHeading);
    const DriveList drives;
    for (const char* root = drives.roots(); *root; root += std::strlen(root) + 1) WriteDrive(out, root);
    CheckHeap(kDiskHeapCheckAtExit);
  });
  return out.written();
}

}  // namespace qel::report
