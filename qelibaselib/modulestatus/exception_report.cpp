#include "qelibaselib/modulestatus/exception_report.h"

#include <omp.h>

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/modulestatus/exception_sections.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/report_file.h"
#include "qelibaselib/modulestatus/source_name.h"
#include "qelibaselib/modulestatus/stack_walk.h"
#include "qelibaselib/modulestatus/status_report.h"

namespace qel::report {
namespace {

constexpr int kVemoHeapCheckAtEntry = 832;
constexpr int kReportFollowsLine = 839;
constexpr int kNoMutexLine = 845;
constexpr int kMutexNotOwnedLine = 849;
constexpr int kVemoHeapCheckAtExit = 895;
constexpr int kHeapCheckAtEntry = 287;
constexpr int kHeapCheckAtExit = 419;

/// Reports of this process. A plain word: reports into the report file are serialised, and a count that two reports
/// into streams of their own share does no harm.
DWORD g_reportCount = 0;

const char* OrEmpty(const char* text) { return text ? text : ""; }

void WriteSeparators(ReportStream& out) {
  for (int i = 0; i < 2; ++i) {
    out.Print(layout::kExceptionSeparator);
  }
}

void WriteBanner(ReportStream& out, const wchar_t* title, const char* message) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  const ProgramPath program;
  out.Print("\n");
  WriteSeparators(out);
  out.Print(layout::kExceptionTime, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
            now.wMilliseconds);
  // A title or message that cannot be read costs its line.
  GuardedReport(QEL_HERE, "ExceptLogOut", [&] { out.Print(">>>>>>>>>> %ls(%s)\n", title, OrEmpty(message)); });
  out.Print(">>>>>>>>>> %s\n", program.text);
  ++g_reportCount;
  out.Print(layout::kExceptionCounters, g_reportCount, GetCurrentProcessId(), GetCurrentThreadId());
  WriteSeparators(out);
}

void WriteSourcePosition(ReportStream& out, int line, const char* sourceFile) {
  out.Print(layout::kSourceHeading);
  GuardedReport(QEL_HERE, "ExceptLogOut", [&] { out.Print("%s(%d)\n", OrEmpty(sourceFile), line); });
}

void WriteException(ReportStream& out, const EXCEPTION_RECORD* record, const CONTEXT* context) {
  out.Print(layout::kRecordHeading);
  out.Print("processID=%lu, threadId=%lu, omp_get_thread_num=%d\n", GetCurrentProcessId(), GetCurrentThreadId(),
            omp_get_thread_num());
  GuardedReport(QEL_HERE, "ExceptLogOut", [&] { WriteRecord(out, record); });
  out.Print(layout::kContextHeading);
  GuardedReport(QEL_HERE, "ExceptLogOut", [&] { WriteContext(out, context); });
}

/// The report file while the report's mutex is owned.
void WriteReportFile(const wchar_t* title, const char* message, const EXCEPTION_RECORD* record, const CONTEXT* context,
                     int line, const char* sourceFile) {
  NamedLogMutex mutex(QEL_HERE, channel::kExceptionReport.mutexStem);
  if (!mutex.Exists()) return WriteAssertion(FixedPosition(kNoMutexLine));
  if (!mutex.Acquire(kLogMutexTimeoutMs)) return WriteAssertion(FixedPosition(kMutexNotOwnedLine));
  const ReportFile file{ReportPath(channel::kExceptionReport)};
  if (!file.get()) return;
  const char* fileName = nullptr;
  GuardedReport(QEL_HERE, "VemoExceptLogOut", [&] { fileName = sourceFile ? PathFindFileNameA(sourceFile) : nullptr; });
  ExceptLogOut(file.get(), title, message, record, context, line, fileName, GetCurrentProcess(), GetCurrentProcessId(),
               GetCurrentThread());
}

}  // namespace
}  // namespace qel::report

using namespace qel::report;

int VemoExceptLogOut(const wchar_t* title, const char* message, const EXCEPTION_RECORD* record, const CONTEXT* context,
                     int line, const char* sourceFile) {
  int heapCode = _HEAPOK;
  const auto write = [&] {
    CheckHeap(kVemoHeapCheckAtEntry);
    qel::WriteAssertion(FixedPosition(kReportFollowsLine));
    WriteReportFile(title, message, record, context, line, sourceFile);
    heapCode = CheckHeap(kVemoHeapCheckAtExit);
  };
  GuardedReport(QEL_HERE, "VemoExceptLogOut", [&] {
    // A host that has left the faulting frames has their remains reported.
    const bool readable = context && !IsBadReadPtr(context, sizeof *context);
    fault::RunBelow(readable ? context : nullptr, write);
  });
  return heapCode;
}

int ExceptLogOut(std::FILE* stream, const wchar_t* title, const char* message, const EXCEPTION_RECORD* record,
                 const CONTEXT* context, int line, const char* sourceFile, HANDLE process, DWORD /*processId*/,
                 HANDLE thread) {
  int heapCode = _HEAPOK;
  if (!title) title = L"";  // the status report at the end does not put the program's name in its place
  GuardedReport(QEL_HERE, "ExceptLogOut", [&] {
    ReportStream out(stream);
    CheckHeap(kHeapCheckAtEntry);
    WriteBanner(out, title, message);
    WriteSourcePosition(out, line, sourceFile);
    WriteException(out, record, context);
    StackWalkLogOut(stream, process, thread, context);
    ModuleStatusLogOut(stream, title, "");
    heapCode = CheckHeap(kHeapCheckAtExit);
  });
  return heapCode;
}
