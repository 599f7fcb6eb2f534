/// @file
/// What the log writer and the day history do alike: the steps of writing one line to a file that several processes
/// share.
///
/// 1. AcquireLogMutex: the named mutex keeps every other writer of the user away until the line is written. When it
///    comes from a writer that died holding it, it counts as acquired, and the file may end in the middle of a line.
/// 2. FindLogFile: the size of the file, which decides whether it takes the line at all. A folder, a pipe or a device
///    that goes by the file's name is told apart here, before anything is opened that would block.
/// 3. OpenLogFile: after a writer that died, a line without an end is ended first, so that our line starts at its own.
/// 4. WriteLogText: the whole line is formatted before and handed to the system with one call. A process that is killed
///    before this call leaves nothing, one that is killed after it a whole line; within it the kernel may have taken a
///    part, which step 3 of the next writer ends.
/// 5. ReleaseLogLine: what a full disk took of the line is taken back, and nothing else is; then the mutex is free.
#pragma once
#include <optional>

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/base/scoped_stream.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

/// The position that CreateMutexX is told by the writers.
inline constexpr SourcePosition kLogMutexCreation{555, "log_writer.cpp"};

/// What one call holds. It lives outside the guarded body, since a fault in code of the system can leave the body
/// without running destructors.
struct LogLine {
  std::optional<NamedLogMutex> mutex;
  ScopedFind search;
  ScopedStream file;
  FormattedText text;
  ULONGLONG sizeBefore = 0;                 ///< of the file, in bytes, when the line is about to be written
  const wchar_t* incompleteFile = nullptr;  ///< the path of a file that took only a part of the line
};

enum class LogFileState { kMissing, kFile, kNoFile };

/// Creates the mutex and waits for it. False when the line is to be dropped.
bool AcquireLogMutex(LogLine& line, const wchar_t* stem, DWORD timeoutMs);
/// Looks the file up. kNoFile: the name belongs to something that takes no lines. Also notes the file's size.
LogFileState FindLogFile(LogLine& line, const wchar_t* path, WIN32_FIND_DATAW& found);
/// Opens the file for appending text.
bool OpenLogFile(LogLine& line, const wchar_t* path, LogFileState state);
/// Writes the text with one call.
void WriteLogText(LogLine& line, const wchar_t* path);
/// Gives back all that is held, in the order search, file, mutex.
void ReleaseLogLine(LogLine& line);

}  // namespace qel
