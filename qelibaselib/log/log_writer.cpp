#include "qelibaselib/log/log_writer.h"

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/log_line.h"
#include "qelibaselib/settings/memory_load.h"

namespace {

using qel::LogLine;

bool IsFull(const WIN32_FIND_DATAW& file) {
  const LONG sizeHigh = static_cast<LONG>(file.nFileSizeHigh);  // signed: a negative one counts as small
  return sizeHigh > 0 || (sizeHigh == 0 && file.nFileSizeLow > qel::kChannelLimitBytes);
}

// The steps are told in log_line.h. The time is that of the call, not that of the moment when the mutex comes.
void AppendLine(LogLine& held, const wchar_t* mutexStem, const wchar_t* filePath, DWORD timeoutMs, int line,
                const char* sourceFile, const char* message) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  const DWORD memoryLoad = qel::ReadMemoryLoad();
  if (!qel::AcquireLogMutex(held, mutexStem, timeoutMs)) return;
  WIN32_FIND_DATAW found;
  const qel::LogFileState state = qel::FindLogFile(held, filePath, found);
  if (state == qel::LogFileState::kFile && IsFull(found)) return;
  const qel::ProgramPath program;
  if (!qel::OpenLogFile(held, filePath, state)) return;
  if (held.text.Format(qel::layout::kChannelLine, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                       now.wMilliseconds, memoryLoad, program.text, GetCurrentProcessId(), GetCurrentThreadId(),
                       sourceFile, line, message))
    qel::WriteLogText(held, filePath);
}

const char* EmptyIfNull(const char* message) { return message ? message : ""; }

}  // namespace

void VemoLogOutFile(const wchar_t* mutexStem, const wchar_t* filePath, DWORD timeoutMs, int line,
                    const char* sourceFile, const char* message) {
  const qel::PreserveLastError preserve;
  LogLine held;
  qel::Swallowed([&] { AppendLine(held, mutexStem, filePath, timeoutMs, line, sourceFile, message); });
  qel::Swallowed([&] { qel::ReleaseLogLine(held); });
}

void VemoLogOutAssert(const char* message, int line, const char* sourceFile) {
  qel::WriteLine(qel::channel::kAssert, EmptyIfNull(message), {line, sourceFile});
}

void VemoLogOutMisc(const char* message, int line, const char* sourceFile) {
  qel::WriteLine(qel::channel::kMisc, EmptyIfNull(message), {line, sourceFile});
}

void VemoLockLogOut(const char* message, int line, const char* sourceFile) {
  qel::WriteLine(qel::channel::kLock, EmptyIfNull(message), {line, sourceFile});
}

void VemoFileLogOut(const char* message, int line, const char* sourceFile) {
  qel::WriteLine(qel::channel::kFileOperation, message, {line, sourceFile});
}
