#include "qelibaselib/settings/display.h"

#include <memory>

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/locale_scope.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/guard/structured_exception_translator.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/mfc/thread.h"
#include "qelibaselib/settings/processor.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

namespace {

constexpr DWORD kBeepHz = 7000;
constexpr DWORD kBeepMs = 300;
constexpr DWORD kBeepPauseMs = 100;
constexpr DWORD kBeeperEndMs = 30000;

struct FreeText {
  void operator()(char* text) const { free(text); }
};
using OwnText = std::unique_ptr<char, FreeText>;

std::unique_ptr<CWinThread> BeginSuspendedThread(AFX_THREADPROC procedure, void* argument, BOOL autoDelete) {
  std::unique_ptr<CWinThread> thread(
      AfxBeginThread(procedure, argument, THREAD_PRIORITY_TIME_CRITICAL, 0, CREATE_SUSPENDED));
  if (thread) thread->m_bAutoDelete = autoDelete;
  return thread;
}

void WaitForThreadEnd(const CWinThread& thread, DWORD timeoutMs, qel::SourcePosition position) {
  if (WaitForSingleObject(thread.m_hThread, timeoutMs) != WAIT_OBJECT_0) qel::WriteAssertion(position);
}

UINT __cdecl BeepUntilSignalled(LPVOID event) {
  qel::Guarded(QEL_HERE, [&] {
    const CSEREG translator;
    while (WaitForSingleObject(event, 0) == WAIT_TIMEOUT) {
      Beep(kBeepHz, kBeepMs);
      Sleep(kBeepPauseMs);
    }
  });
  return 0;
}

// The block is made and goes nowhere: the display has no output.
void FormatNotification(const char* message) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  const qel::ProgramPath program;
  qel::FormattedText block;
  block.Format("%04d/%02d/%02d %02d:%02d:%02d.%03d\n----------\n%s\n----------\n%s\n", now.wYear, now.wMonth, now.wDay,
               now.wHour, now.wMinute, now.wSecond, now.wMilliseconds, program.text, message);
}

void RunDisplay(OwnText text) {
  VemoOMPSetNumThreads(0);
  const qel::ScopedObject ended(CreateEventX(QEL_HERE.line, QEL_HERE.sourceFile, nullptr, FALSE, FALSE, nullptr));
  const std::unique_ptr<CWinThread> beeper = BeginSuspendedThread(&BeepUntilSignalled, ended.Get(), FALSE);
  if (beeper) beeper->ResumeThread();
  FormatNotification(text.get());
  text.reset();
  SetEvent(ended.Get());
  if (beeper) WaitForThreadEnd(*beeper, kBeeperEndMs, QEL_HERE);
}

UINT __cdecl DisplayThread(LPVOID text) {
  OwnText own(static_cast<char*>(text));
  qel::Guarded(QEL_HERE, [&] {
    const CSEREG translator;
    const CSetLocale locale;
    RunDisplay(std::move(own));
  });
  return 0;
}

}  // namespace

void VemoDispInf(const char* text, int waitForEnd) {
  qel::Guarded(QEL_HERE, [&] {
    OwnText copy(_strdup(text));
    std::unique_ptr<CWinThread> thread = BeginSuspendedThread(&DisplayThread, copy.get(), !waitForEnd);
    if (!thread) return qel::WriteAssertion(QEL_HERE, GetLastError());
    static_cast<void>(copy.release());                                   // the thread's own from here on
    CWinThread* display = waitForEnd ? thread.get() : thread.release();  // which deletes itself
    display->ResumeThread();
    if (waitForEnd) WaitForThreadEnd(*display, INFINITE, QEL_HERE);
  });
}
