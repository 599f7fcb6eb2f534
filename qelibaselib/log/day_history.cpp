#include <utility>

#include "qelibaselib/base/bounded_text.h"
#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/log_line.h"
#include "qelibaselib/log/log_writer.h"

namespace {

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

// Under the mutex: whether the line may go into the file. A file of this day of an earlier month is deleted first.
bool PrepareDayFile(LogLine& held, const wchar_t* path, const SYSTEMTIME& now, bool& exists) {
  WIN32_FIND_DATAW found;
  exists = qel::FindLogFile(held, path, found);
  if (!exists) return true;
  const ULONGLONG size = (static_cast<ULONGLONG>(found.nFileSizeHigh) << 32) + found.nFileSizeLow;
  if (size > qel::kChannelLimitBytes) return false;
  held.file = _wfopen(path, L"rt");
  if (!held.file || std::fseek(held.file, 0, SEEK_SET) != 0) return false;
  char firstLine[kFirstLineBytes] = "";
  if (!std::fgets(firstLine, kFirstLineBytes, held.file)) firstLine[0] = '\0';
  std::fclose(std::exchange(held.file, nullptr));
  char today[16];
  qel::FormatText(today, sizeof(today), "%04d/%02d/%02d", now.wYear, now.wMonth, now.wDay);
  if (_mbsnbcmp(reinterpret_cast<const unsigned char*>(today), reinterpret_cast<const unsigned char*>(firstLine),
                kDateBytes) != 0) {
    DeleteFileW(path);
    exists = false;
  }
  return true;
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
    bool exists = false;
    if (!qel::AcquireLogMutex(held, mutexStem, timeoutMs) || !PrepareDayFile(held, path, now, exists)) return;
    const qel::ProgramPath program;
    if (!qel::OpenForAppending(held, path, exists)) return;
    if (held.text.Format(qel::layout::kDayHistoryLine, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
                         now.wSecond, now.wMilliseconds, program.text, GetCurrentProcessId(), GetCurrentThreadId(),
                         sourceFile, line, message))
      qel::WriteText(held, path);
  });
  qel::Swallowed([&] { qel::Release(held); });
}
