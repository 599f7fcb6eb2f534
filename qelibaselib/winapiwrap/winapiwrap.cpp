#include "qelibaselib/winapiwrap/winapiwrap.h"

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

// The line is formatted inside the guard of the wrapper: a name that cannot be read faults there, and the guard tells
// of it, instead of in the log writer, which swallows what it cannot write.
//
// The log writer makes its own mutex through CreateMutexX: a failure there enters the writer again for this channel.
// No flag stops that, by intention; the chain ends with the first creation that succeeds.

namespace {

const wchar_t* NameOrNull(const wchar_t* name) { return name ? name : L"NULL"; }

DWORD AsUnsigned(BOOL flag) { return static_cast<DWORD>(flag); }

void LogFailure(qel::SourcePosition caller, const char* format, ...) QEL_FORMAT(2, 3);
void LogFailure(qel::SourcePosition caller, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  qel::FormattedText message;
  message.FormatV(format, arguments);
  va_end(arguments);
  qel::WriteLine(qel::channel::kWinApiWrap, message.Text(), caller);
}

}  // namespace

HANDLE CreateEventX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, BOOL manualReset, BOOL initialState,
                    const wchar_t* name) {
  HANDLE event = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    event = CreateEventW(sa, manualReset, initialState, name);
    const DWORD error = GetLastError();
    if (!event)
      LogFailure({line, sourceFile}, "lastErr=%lu, %s(0x%p, %lu, %lu, %ls)", error, "CreateEventX",
                 static_cast<void*>(sa), AsUnsigned(manualReset), AsUnsigned(initialState), NameOrNull(name));
    qel::RestoreError(error);
  });
  return event;
}

HANDLE CreateMutexX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, BOOL initialOwner,
                    const wchar_t* name) {
  HANDLE mutex = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    mutex = CreateMutexW(sa, initialOwner, name);
    const DWORD error = GetLastError();
    if (!mutex)
      LogFailure({line, sourceFile}, "lastErr=%lu, %s(0x%p, %lu, %ls)", error, "CreateMutexX", static_cast<void*>(sa),
                 AsUnsigned(initialOwner), NameOrNull(name));
    qel::RestoreError(error);
  });
  return mutex;
}

HANDLE CreateSemaphoreX(int line, const char* sourceFile, LPSECURITY_ATTRIBUTES sa, LONG initialCount,
                        LONG maximumCount, const wchar_t* name) {
  HANDLE semaphore = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    semaphore = CreateSemaphoreW(sa, initialCount, maximumCount, name);
    const DWORD error = GetLastError();
    if (!semaphore)
      LogFailure({line, sourceFile}, "lastErr=%lu, %s(0x%p, %ld, %ld, %ls)", error, "CreateSemaphoreX",
                 static_cast<void*>(sa), initialCount, maximumCount, NameOrNull(name));
    qel::RestoreError(error);
  });
  return semaphore;
}
