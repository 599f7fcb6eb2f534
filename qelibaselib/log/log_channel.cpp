#include "qelibaselib/log/log_channel.h"

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_writer.h"
#include "qelibaselib/settings/settings.h"

namespace qel {

void WriteLine(const LogChannel& channel, const char* message, SourcePosition position) {
  const PreserveLastError preserve;
  Swallowed([&] {
    wchar_t path[MAX_PATH] = L"";
    PathCombineW(path, VemoGetLogPath(), channel.fileName);
    VemoLogOutFile(channel.mutexStem, path, kLogMutexTimeoutMs, position.line, position.sourceFile, message);
  });
}

void WriteLineF(const LogChannel& channel, SourcePosition position, const char* format, ...) {
  const PreserveLastError preserve;
  std::va_list arguments;
  va_start(arguments, format);
  FormattedText message;
  if (Swallowed([&] { message.FormatV(format, arguments); })) WriteLine(channel, message.Text(), position);
  va_end(arguments);
}

void WriteAssertion(SourcePosition position) {
  WriteLineF(channel::kAssert, position, "ASSERT : %s(%d)", position.sourceFile, position.line);
}

void WriteAssertion(SourcePosition position, DWORD lastError) {
  WriteLineF(channel::kAssert, position, "ASSERT : %s(%d), lec=%lu", position.sourceFile, position.line, lastError);
}

void WriteAssertion(SourcePosition position, const char* text) {
  WriteLineF(channel::kAssert, position, "ASSERT : %s(%d), %s", position.sourceFile, position.line, text);
}

}  // namespace qel
