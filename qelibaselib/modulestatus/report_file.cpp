#include "qelibaselib/modulestatus/report_file.h"

#include <algorithm>

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/settings/settings.h"

namespace qel::report {
namespace {

constexpr DWORD kLongestLineBytes = 16 * 1024;

// Cuts the file behind its last line end. The caller owns the report's mutex.
void TakeBackCutLine(const wchar_t* path) {
  const ScopedFile file(CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size;
  if (!file || !GetFileSizeEx(file.Get(), &size)) return;
  LARGE_INTEGER begin;
  begin.QuadPart = std::max<LONGLONG>(size.QuadPart - kLongestLineBytes, 0);
  char bytes[kLongestLineBytes];
  DWORD count = 0;
  if (!SetFilePointerEx(file.Get(), begin, nullptr, FILE_BEGIN) ||
      !ReadFile(file.Get(), bytes, sizeof bytes, &count, nullptr))
    return;
  while (count > 0 && bytes[count - 1] != '\n') --count;
  begin.QuadPart += count;
  if (SetFilePointerEx(file.Get(), begin, nullptr, FILE_BEGIN)) SetEndOfFile(file.Get());
}

}  // namespace

ReportPath::ReportPath(const LogChannel& channel) : text{} { PathCombineW(text, VemoGetLogPath(), channel.fileName); }

ReportFile::~ReportFile() {
  if (!stream_) return;
  const PreserveLastError keep;
  const bool failed = std::ferror(stream_) != 0;
  if (std::fclose(stream_) != 0 || failed) TakeBackCutLine(path_.text);
}

}  // namespace qel::report
