#include "qelibaselib/base/format.h"
#include "qelibaselib/base/program_path.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/modulestatus/debugger_command.h"
#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/source_name.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

namespace qel::report {
namespace {

constexpr int kCreateEventLine = 1022;
constexpr DWORD kRegisteredCharacters = 259;
constexpr std::size_t kCommandCharacters = 4096;
constexpr std::size_t kRemarkCharacters = 1024;

enum DebuggerStatus { kNotTried = -1, kAttached = 0, kNotStarted = 1 };

struct DebuggerAttempt {
  DebuggerStatus status = kNotTried;
  LONG result = EXCEPTION_CONTINUE_SEARCH;
  char command[kCommandCharacters] = "";
};

bool Start(char* command, HANDLE& process) {
  char desktop[] = "Winsta0\\Default";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.lpDesktop = desktop;
  PROCESS_INFORMATION started{};
  if (!CreateProcessA(nullptr, command, nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started)) return false;
  CloseHandle(started.hThread);
  process = started.hProcess;
  return true;
}

/// A debugger that ends without having signalled never will: it must not hold this process for ever.
bool WaitUntilAttached(HANDLE attached, HANDLE process) {
  const HANDLE either[] = {attached, process};
  return WaitForMultipleObjects(2, either, FALSE, INFINITE) == WAIT_OBJECT_0;
}

void TryDebugger(DebuggerAttempt& attempt) {
  if (IsDebuggerPresent()) return;
  char registered[kRegisteredCharacters + 1] = "";
  GetProfileStringA("AeDebug", "Debugger", nullptr, registered, kRegisteredCharacters);
  registered[kRegisteredCharacters] = '\0';
  if (!IsDebuggerCommand(registered)) return;
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  // Stays open: the debugger signals it whenever it is ready, and this process is at its end.
  const HANDLE attached = CreateEventX(kCreateEventLine, kSourceName, &inheritable, TRUE, FALSE, nullptr);
  FormatDebuggerCommand(attempt.command, sizeof attempt.command, registered, GetCurrentProcessId(), attached);
  HANDLE process = nullptr;
  if (Start(attempt.command, process) && attached) {
    attempt.status = kAttached;
    if (WaitUntilAttached(attached, process)) attempt.result = EXCEPTION_CONTINUE_EXECUTION;
  } else {
    attempt.status = kNotStarted;
  }
  if (process) CloseHandle(process);
}

/// Leaves a text on the stack, where whoever looks into the dump of this process finds it. It goes nowhere else.
void LeaveRemark(const DebuggerAttempt& attempt) {
  const ProgramPath program;
  char remark[kRemarkCharacters];
  FormatText(remark, sizeof remark,
             "Error : Exception Occurred\nAeDebuggerUnhandledExceptionFilter()\n%s\n%s\nStatDebugger=%d", program.text,
             attempt.command, static_cast<int>(attempt.status));
}

}  // namespace
}  // namespace qel::report

using namespace qel::report;

LONG AeDebuggerUnhandledExceptionFilter() {
  LONG result = EXCEPTION_CONTINUE_SEARCH;
  GuardedReport(QEL_HERE, "AeDebuggerUnhandledExceptionFilter", [&] {
    DebuggerAttempt attempt;
    qel::Swallowed([&] { TryDebugger(attempt); });
    if (attempt.status == kNotTried) LeaveRemark(attempt);
    result = attempt.result;
  });
  return result;
}
