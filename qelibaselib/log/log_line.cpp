#include "qelibaselib/log/log_line.h"

#include <utility>

#include "qelibaselib/log/cut_line.h"

namespace qel {

ProgramPath::ProgramPath() {
  text[0] = '\0';
  GetModuleFileNameA(nullptr, text, MAX_PATH);
  text[MAX_PATH - 1] = '\0';
}

bool AcquireLogMutex(LogLine& line, const wchar_t* stem, DWORD timeoutMs) {
  line.mutex.emplace(kLogMutexCreation, stem);
  return line.mutex->Exists() && line.mutex->Acquire(timeoutMs);
}

bool FindLogFile(LogLine& line, const wchar_t* path, WIN32_FIND_DATAW& found) {
  line.search = FindFirstFileW(path, &found);
  if (line.search == INVALID_HANDLE_VALUE) return false;
  FindClose(std::exchange(line.search, INVALID_HANDLE_VALUE));
  return true;
}

bool OpenForAppending(LogLine& line, const wchar_t* path, bool existed) {
  if (!path) return false;
  if (existed && line.mutex->Abandoned()) EndCutLine(path);
  line.file = _wfopen(path, L"at");
  return line.file != nullptr;
}

void WriteText(LogLine& line, const wchar_t* path) {
  const bool written = std::fwrite(line.text.Text(), 1, line.text.Length(), line.file) == line.text.Length() &&
                       std::fflush(line.file) == 0;
  if (!written) line.cutPath = path;
}

void Release(LogLine& line) {
  if (line.search != INVALID_HANDLE_VALUE) FindClose(std::exchange(line.search, INVALID_HANDLE_VALUE));
  if (line.file) std::fclose(std::exchange(line.file, nullptr));
  if (line.cutPath) RemoveCutLine(line.cutPath);
  line.mutex.reset();
}

}  // namespace qel
