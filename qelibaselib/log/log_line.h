/// @file
/// What the log writer and the day history do alike.
#pragma once
#include <cstdio>
#include <optional>

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

/// The position that CreateMutexX is told by the writers.
inline constexpr SourcePosition kLogMutexCreation{555, "log_writer.cpp"};

/// What one call holds. It lives outside the guarded body, since a fault in code of the system can leave the body
/// without running destructors.
struct LogLine {
  HANDLE search = INVALID_HANDLE_VALUE;
  std::FILE* file = nullptr;
  std::optional<NamedLogMutex> mutex;
  FormattedText text;
  const wchar_t* cutPath = nullptr;  ///< the file, when only a part of the line could be written
};

/// The program's path; what does not fit is cut.
struct ProgramPath {
  ProgramPath();
  char text[MAX_PATH];
};

/// Creates the mutex and waits for it.
bool AcquireLogMutex(LogLine& line, const wchar_t* stem, DWORD timeoutMs);
/// Whether there is such a file; its search is over when this returns.
bool FindLogFile(LogLine& line, const wchar_t* path, WIN32_FIND_DATAW& found);
/// Opens the file for appending text. `existed`: it may end in what is left of a killed writer's line.
bool OpenForAppending(LogLine& line, const wchar_t* path, bool existed);
/// Writes the text with one call.
void WriteText(LogLine& line, const wchar_t* path);
/// Gives back all that is held, in the order search, file, mutex.
void Release(LogLine& line);

}  // namespace qel
