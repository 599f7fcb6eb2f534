#include "qelibaselib/modulestatus/status_report.h"

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/modulestatus/address_space.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/mebibytes.h"
#include "qelibaselib/modulestatus/report_file.h"
#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/modulestatus/source_name.h"
#include "qelibaselib/modulestatus/status_sections.h"
#include "qelibaselib/settings/processor.h"
#include "qelibaselib/settings/settings.h"

namespace qel::report {
namespace {

constexpr int kVemoHeapCheckAtEntry = 762;
constexpr int kCreateMutexLine = 774;
constexpr int kNoMutexLine = 775;
constexpr int kMutexNotOwnedLine = 779;
constexpr int kVemoHeapCheckAtExit = 815;
constexpr int kHeapCheckAtEntry = 433;
constexpr int kHeapCheckAtExit = 480;
constexpr DWORD kReportLimitBytes = layout::kStatusReportLimitBytes;

bool IsOverLimit(const ReportPath& path) {
  WIN32_FIND_DATAW data;
  const ScopedFind find(FindFirstFileW(path.text, &data));
  if (!find) return false;
  return data.nFileSizeHigh != 0 || data.nFileSizeLow > kReportLimitBytes;
}

void WriteReportFile(const wchar_t* title, const char* message) {
  NamedLogMutex mutex(FixedPosition(kCreateMutexLine), channel::kModuleStatusReport.mutexStem);
  if (!mutex.Exists()) return WriteAssertion(FixedPosition(kNoMutexLine));
  if (!mutex.Acquire(kLogMutexTimeoutMs)) return WriteAssertion(FixedPosition(kMutexNotOwnedLine));
  const ReportPath path(channel::kModuleStatusReport);
  if (IsOverLimit(path)) return;
  const ReportFile file(path);
  if (file.get()) ModuleStatusLogOut(file.get(), title, message ? message : "");
}

void WriteTitle(ReportStream& out, const char* program, const wchar_t* title, const char* message) {
  if (title) {
    out.Print("##### %ls(%s)\n", title, message);
  } else {
    out.Print("##### %s(%s)\n", PathFindFileNameA(program), message);
  }
}

void WriteBanner(ReportStream& out, const wchar_t* title, const char* message) {
  const ProgramPath program;
  SYSTEMTIME now;
  GetLocalTime(&now);
  SIZE_T minimum = 0;
  SIZE_T maximum = 0;
  GetProcessWorkingSetSize(GetCurrentProcess(), &minimum, &maximum);

  out.Print("\n");
  out.Print(layout::kStatusBannerLine);
  out.Print(layout::kStatusBannerLine);
  out.Print(layout::kStatusTime, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
            now.wMilliseconds);
  // A title or message that cannot be read costs its line.
  GuardedReport(QEL_HERE, "ModuleStatusLogOut", [&] { WriteTitle(out, program.text, title, message ? message : ""); });
  out.Print("##### ProcessId()=%lu\n", GetCurrentProcessId());
  out.Print("##### ExePath  : %s\n", program.text);
  out.Print("##### LogPath  : %ls\n", VemoGetLogPath());
  out.Print("##### TempPath : %ls\n", VemoGetTmpPath());
  out.Print("##### DataPath : %ls\n", VemoGetDataPath());
  const int threads = VemoOMPGetNumThreads();
  // Twice: readers of these files count on it.
  for (int i = 0; i < 2; ++i) out.Print("##### OmpNum   : %d\n", threads);
  out.Print("##### WSS      : %lu, %lu\n", static_cast<DWORD>(Mebibytes(minimum)),
            static_cast<DWORD>(Mebibytes(maximum)));
  out.Print(layout::kStatusBannerLine);
}

}  // namespace
}  // namespace qel::report

using namespace qel::report;

int VemoModuleStatusLogOut(const wchar_t* title, const char* message) {
  int heapCode = _HEAPOK;
  GuardedReport(QEL_HERE, "VemoModuleStatusLogOut", [&] {
    CheckHeap(kVemoHeapCheckAtEntry);
    WriteReportFile(title, message);
    heapCode = CheckHeap(kVemoHeapCheckAtExit);
  });
  return heapCode;
}

int ModuleStatusLogOut(std::FILE* stream, const wchar_t* title, const char* message) {
  int written = 0;
  GuardedReport(QEL_HERE, "ModuleStatusLogOut", [&] {
    CheckHeap(kHeapCheckAtEntry);
    ReportStream out(stream);
    WriteBanner(out, title, message);
    written = out.written();
    for (const auto section :
         {WriteSystemVersion, WriteAddressSpace, WriteSystemInformation, WriteGlobalMemory, WriteDiskFreeSpace}) {
      written += section(stream);
    }
    CheckHeap(kHeapCheckAtExit);
  });
  return written;
}
