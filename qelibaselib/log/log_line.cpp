#include "qelibaselib/log/log_line.h"

#include "qelibaselib/log/cut_line.h"

namespace qel {
namespace {

bool TakesLines(const WIN32_FIND_DATAW& found) {
  return (found.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0;
}

}  // namespace

bool AcquireLogMutex(LogLine& line, const wchar_t* stem, DWORD timeoutMs) {
  line.mutex.emplace(kLogMutexCreation, stem);
  return line.mutex->Exists() && line.mutex->Acquire(timeoutMs);
}

LogFileState FindLogFile(LogLine& line, const wchar_t* path, WIN32_FIND_DATAW& found) {
  line.search = ScopedFind(FindFirstFileW(path, &found));
  if (!line.search) return LogFileState::kMissing;
  line.search.Close();
  line.sizeBefore = static_cast<ULONGLONG>(found.nFileSizeHigh) << 32 | found.nFileSizeLow;
  return TakesLines(found) ? LogFileState::kFile : LogFileState::kNoFile;
}

bool OpenLogFile(LogLine& line, const wchar_t* path, LogFileState state) {
  if (!path || state == LogFileState::kNoFile) return false;
  if (state == LogFileState::kFile && line.mutex->Abandoned()) line.sizeBefore += EndCutLine(path);
  line.file.reset(_wfopen(path, L"at"));
  return line.file != nullptr;
}

void WriteLogText(LogLine& line, const wchar_t* path) {
  std::FILE* const file = line.file.get();
  const std::size_t written = std::fwrite(line.text.Text(), 1, line.text.Length(), file);
  if (written != line.text.Length() || std::fflush(file) != 0) line.incompleteFile = path;
}

void ReleaseLogLine(LogLine& line) {
  if (line.search) line.search.Close();
  line.file.reset();
  if (line.incompleteFile) TakeBackPartOfLine(line.incompleteFile, line.sizeBefore, line.text.Text());
  line.mutex.reset();
}

}  // namespace qel
