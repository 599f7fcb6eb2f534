#include "qelibaselib/settings/startup_checks.h"

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/settings/display.h"
#include "qelibaselib/settings/version_reader.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

namespace {

constexpr DWORD kRetryIntervalMs = 1000;

enum class StartAttempt { kFirst, kAlreadyRunning, kFailed };

// The mark is a named event. The first instance never closes its handle, so the system removes the event when that
// process ends, however it ends. Another instance closes the handle once `caller` is warned.
StartAttempt TryToBeFirst(const wchar_t* stem, qel::SourcePosition caller, DWORD& error) {
  qel::ScopedObject mark(CreateEventX(QEL_HERE.line, QEL_HERE.sourceFile, nullptr, TRUE, FALSE,
                                      qel::LogMutexName(stem).text));  // named as the log's mutexes are
  error = GetLastError();
  if (!mark) return StartAttempt::kFailed;
  if (error != ERROR_ALREADY_EXISTS) {
    mark.Release();
    return StartAttempt::kFirst;
  }
  const qel::ProgramPath program;
  qel::WriteLineF(qel::channel::kMisc, caller, "Warning : Multi Start Up, %s, lc=0x%lx", program.text, error);
  return StartAttempt::kAlreadyRunning;
}

void ReportRunningInstance(qel::SourcePosition caller, DWORD error, bool show) {
  const qel::ProgramPath program;
  qel::WriteAssertion(QEL_HERE);
  if (!show) return;
  qel::WriteLineF(qel::channel::kMisc, caller, "Error : Multi Start Up, %s, lc=0x%lx", program.text, error);
  qel::FormattedText text;
  text.Format("Error : Multi Start Up\n%s\nlc=0x%lx", program.text, error);
  VemoDispInf(text.Text(), TRUE);
}

bool IsNtFamily(const OSVERSIONINFOEXW& version) {
  const bool isNew = (version.dwMajorVersion == 5 && version.dwMinorVersion >= 1) || version.dwMajorVersion >= 6;
  return version.dwPlatformId == VER_PLATFORM_WIN32_NT && isNew;
}

}  // namespace

int VemoChkMultiStartUp(int line, const char* sourceFile, const wchar_t* stem, int showError, DWORD timeoutMs) {
  int result = 1;
  qel::Guarded(QEL_HERE, [&] {
    const qel::SourcePosition caller{line, sourceFile};
    const DWORD start = GetTickCount();
    DWORD error = ERROR_SUCCESS;
    do {
      const StartAttempt attempt = TryToBeFirst(stem, caller, error);
      if (attempt == StartAttempt::kFirst) {
        result = 0;
        return;
      }
      if (attempt == StartAttempt::kFailed) break;
      Sleep(kRetryIntervalMs);
    } while (GetTickCount() - start < timeoutMs);
    ReportRunningInstance(caller, error, showError != 0);
  });
  return result;
}

int VemoChkOSVer() {
  int result = 0;
  qel::Guarded(QEL_HERE, [&] {
    OSVERSIONINFOEXW version;
    const int read = qel::ReadSystemVersion(version);
    if (read) {
      result = IsNtFamily(version) ? 1 : read;  // only an unreadable version is refused
      return;
    }
    qel::FormattedText text;
    text.Format("%s\nPlatformId=%lu, MajorVersion=%lu, MinorVersion=%lu, %ls", "This OS not supported.",
                version.dwPlatformId, version.dwMajorVersion, version.dwMinorVersion, version.szCSDVersion);
    VemoDispInf(text.Text(), TRUE);
  });
  return result;
}
