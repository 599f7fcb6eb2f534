#include "qelibaselib/log/day_history.h"

#include "qelibaselib/base/bounded_text.h"
#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/log_line.h"

namespace {

using qel::LogFileState;
using qel::LogLine;

constexpr int kFirstLineBytes = 64;
constexpr std::size_t kDateBytes = 10;

struct DayFilePath {
  DayFilePath(const wchar_t* folder, const wchar_t* fileBase, const wchar_t* extension, const SYSTEMTIME& now) {
    wchar_t base[MAX_PATH];
    text[0] = L'\0';  // a name that is too long would otherwise end in the current folder
    if (!PathCombineW(base, folder, fileBase)) return;
    const wchar_t day[] = {static_cast<wchar_t>(L'0' + now.wDay / 10), static_cast<wchar_t>(L'0' + now.wDay % 10), 0};
    qel::WideText(text) << base << L"_" << day << L"." << extension;
  }
  wchar_t text[MAX_PATH];
};

bool IsFull(const WIN32_FIND_DATAW& found) {
  const ULONGLONG size = static_cast<ULONGLONG>(found.nFileSizeHigh) << 32 | found.nFileSizeLow;
  return size > qel::kChannelLimitBytes;
}

enum class FirstLine { kOfToday, kOfAnotherDay, kUnreadable };

// The first line of a file starts with the date on which it was written.
FirstLine ReadFirstLine(LogLine& held, const wchar_t* path, const SYSTEMTIME& now) {
  held.file.reset(_wfopen(path, L"rt"));
  if (!held.file || std::fseek(held.file.get(), 0, SEEK_SET) != 0) return FirstLine::kUnreadable;
  char firstLine[kFirstLineBytes] = "";
  if (!std::fgets(firstLine, kFirstLineBytes, held.file.get())) firstLine[0] = '\0';
  held.file.reset();
  char today[16];
  qel::FormatText(today, sizeof(today), "%04d/%02d/%02d", now.wYear, now.wMonth, now.wDay);
  const bool isEqual = _mbsnbcmp(reinterpret_cast<const unsigned char*>(today),
                                 reinterpret_cast<const unsigned char*>(firstLine), kDateBytes) == 0;
  return isEqual ? FirstLine::kOfToday : FirstLine::kOfAnotherDay;
}

// Makes the file of the day ready for a line, under the mutex; false when the line is to be dropped. Since there is one
// file for each day of the month, a date that is not today's is that of an earlier month.
bool PrepareDayFile(LogLine& held, const wchar_t* path, const SYSTEMTIME& now, LogFileState& state) {
  WIN32_FIND_DATAW found;
  state = qel::FindLogFile(held, path, found);
  if (state != LogFileState::kFile) return state == LogFileState::kMissing;
  if (IsFull(found)) return false;
  const FirstLine first = ReadFirstLine(held, path, now);
  if (first == FirstLine::kOfAnotherDay) {
    DeleteFileW(path);
    state = LogFileState::kMissing;
    held.sizeBefore = 0;
  }
  return first != FirstLine::kUnreadable;
}

}  // namespace

void VemoLogOutFileDayHis(const wchar_t* mutexStem, const wchar_t* folder, const wchar_t* fileBase,
                          const wchar_t* extension, DWORD timeoutMs, int line, const char* sourceFile,
                          const char* message) {
  const qel::PreserveLastError preserve;
  LogLine held;
  wchar_t path[MAX_PATH];  // outlives the body: the release may need it
  qel::Swallowed([&] {
    SYSTEMTIME now;
    GetLocalTime(&now);
    qel::CopyBounded(path, DayFilePath(folder, fileBase, extension, now).text);
    LogFileState state{};
    if (!qel::AcquireLogMutex(held, mutexStem, timeoutMs) || !PrepareDayFile(held, path, now, state)) return;
    const qel::ProgramPath program;
    if (!qel::OpenLogFile(held, path, state)) return;
    if (held.text.Format(qel::layout::kDayHistoryLine, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
                         now.wSecond, now.wMilliseconds, program.text, GetCurrentProcessId(), GetCurrentThreadId(),
                         sourceFile, line, message))
      qel::WriteLogText(held, path);
  });
  qel::Swallowed([&] { qel::ReleaseLogLine(held); });
}
