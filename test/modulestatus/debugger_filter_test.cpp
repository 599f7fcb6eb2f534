#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "qelibaselib/qelibaselib.h"
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_reader.h"
#include "test/support/child_process.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/sanitizer.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

DWORD Profile(const std::string& command, char* text, DWORD size) {
  const size_t length = std::min<size_t>(command.size(), size - 1);
  std::memcpy(text, command.data(), length);
  text[length] = '\0';
  return static_cast<DWORD>(length);
}

// What the filter starts, with this command registered and a debugger that does not start; empty for nothing.
std::string Started(const std::string& registered, HANDLE* event = nullptr) {
  std::string started;
  const auto debugger = STAND_IN(IsDebuggerPresent, [](int) { return FALSE; });
  const auto profile = STAND_IN(
      GetProfileStringA, [&](int, const char* section, const char* key, const char* fallback, char* text, DWORD size) {
        EXPECT_STREQ(section, "AeDebug");
        EXPECT_STREQ(key, "Debugger");
        EXPECT_EQ(fallback, nullptr);
        EXPECT_EQ(size, 259u);
        return Profile(registered, text, size);
      });
  const auto create = STAND_IN(
      CreateEventW, [&](int, SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState, const wchar_t* name) {
        EXPECT_TRUE(security && security->bInheritHandle && manualReset && !initialState && !name);
        const HANDLE made = CreateEventW(security, manualReset, initialState, name);
        if (event) *event = made;
        return made;
      });
  const auto start = STAND_IN(
      CreateProcessA,
      [&](int, const char* application, char* command, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL inherit,
          DWORD flags, void* environment, const char* folder, STARTUPINFOA* startup, PROCESS_INFORMATION*) -> BOOL {
        EXPECT_TRUE(!application && inherit && flags == 0 && !environment && !folder);
        EXPECT_EQ(startup->cb, sizeof *startup);
        EXPECT_STREQ(startup->lpDesktop, "Winsta0\\Default");
        started = command;
        return FALSE;
      });
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(start.Calls(), started.empty() ? 0 : 1);
  EXPECT_EQ(create.Calls(), started.empty() ? 0 : 1);
  return started;
}

std::string Printed(const char* format, unsigned long value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

TEST(DebuggerFilter, PutsProcessAndEventIntoTheCommand) {
  HANDLE event = nullptr;
  const auto eventAs = [&](const char* format) { return Printed(format, reinterpret_cast<ULONG_PTR>(event)); };
  const std::string process = std::to_string(GetCurrentProcessId());
  std::string started = Started("debug -p %ld -e %ld", &event);
  EXPECT_EQ(started, "debug -p " + process + eventAs(" -e %lu"));
  started = Started("%d|%08x|%u|%lu|%I64u", &event);
  EXPECT_EQ(started, process + eventAs("|%08lx|0|0|0"));
  started = Started("100%% %u %p %p", &event);
  EXPECT_EQ(started, "100% " + process + eventAs(" %08lX 00000000"));
  EXPECT_EQ(Started("%-12d|").substr(0, 13), Printed("%-12lu|", GetCurrentProcessId()));
  EXPECT_EQ(Started("%.8d"), Printed("%.8lu", GetCurrentProcessId()));
  EXPECT_EQ(Started("plain"), "plain");
  EXPECT_EQ(Started(std::string(300, 'x')), std::string(258, 'x'));
}

TEST(DebuggerFilter, RefusesOtherConversions) {
  for (const char* command : {"", "%s", "debug %n", "%f %d", "%d %c", "%*d", "%.*d", "%d %", "%", "%q", "%ls", "%hn",
                              "%d %d %s", "%5", "% "}) {
    EXPECT_EQ(Started(command), "") << command;
  }
}

TEST(DebuggerFilter, BoundsTheCommand) {
  EXPECT_EQ(Started("%9999d").size(), 4095u);
  EXPECT_EQ(Started("%4000d%4000d%.4000d%999999999999999999d").size(), 4095u);
}

TEST(DebuggerFilter, WaitsUntilTheDebuggerHasSignalled) {
  const auto debugger = STAND_IN(IsDebuggerPresent, [](int) { return FALSE; });
  const auto profile = STAND_IN(GetProfileStringA, [](int, const char*, const char*, const char*, char* text,
                                                      DWORD size) { return Profile("%lu %lu", text, size); });
  const auto start = STAND_IN(
      CreateProcessA,
      [](int, const char*, char* command, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD, void*, const char*,
         STARTUPINFOA*, PROCESS_INFORMATION* information) -> BOOL {
        const unsigned long event = std::stoul(std::strchr(command, ' '));
        SetEvent(reinterpret_cast<HANDLE>(event));
        *information = {CreateEventW(nullptr, TRUE, FALSE, nullptr), CreateEventW(nullptr, TRUE, FALSE, nullptr), 0, 0};
        return TRUE;
      });
  const auto wait =
      STAND_IN(WaitForMultipleObjects, [](int, DWORD count, const HANDLE* handles, BOOL all, DWORD timeoutMs) {
        EXPECT_EQ(timeoutMs, INFINITE);
        return WaitForMultipleObjects(count, handles, all, timeoutMs);
      });
  const auto close = STAND_IN(CloseHandle, [](int, HANDLE handle) { return CloseHandle(handle); });
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_EXECUTION);
  EXPECT_EQ(wait.Calls(), 1);
  EXPECT_EQ(close.Calls(), 2);
}

TEST(DebuggerFilter, DoesNotWaitForADebuggerThatHasEnded) {
  const auto debugger = STAND_IN(IsDebuggerPresent, [](int) { return FALSE; });
  const auto profile = STAND_IN(GetProfileStringA, [](int, const char*, const char*, const char*, char* text,
                                                      DWORD size) { return Profile("%lu %lu", text, size); });
  const auto start = STAND_IN(
      CreateProcessA,
      [](int, const char*, char*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD, void*, const char*,
         STARTUPINFOA*, PROCESS_INFORMATION* information) -> BOOL {
        *information = {CreateEventW(nullptr, TRUE, TRUE, nullptr), CreateEventW(nullptr, TRUE, FALSE, nullptr), 0, 0};
        return TRUE;
      });
  const auto close = STAND_IN(CloseHandle, [](int, HANDLE handle) { return CloseHandle(handle); });
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(close.Calls(), 2);
}

TEST(DebuggerFilter, DoesNothingUnderADebugger) {
  const auto debugger = STAND_IN(IsDebuggerPresent, [](int) { return TRUE; });
  const auto profile = FAIL_CALL(GetProfileStringA, 1, 0, 0u);
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(profile.Calls(), 0);
}

TEST(DebuggerFilter, SearchesOnAfterAFailure) {
  LogFolder();
  TakeLines(channel::kWinApiWrap);
  const auto debugger = STAND_IN(IsDebuggerPresent, [](int) { return FALSE; });
  const auto profile =
      STAND_IN(GetProfileStringA, [](int nth, const char*, const char*, const char*, char* text, DWORD size) -> DWORD {
        if (nth == 2) return ReadThrough(nullptr);
        return Profile("debug", text, size);
      });
  // Without an event the debugger is started but not waited for.
  const auto create = FAIL_CALL(CreateEventW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
  const auto start = STAND_IN(CreateProcessA,
                              [](int, const char*, char*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD,
                                 void*, const char*, STARTUPINFOA*, PROCESS_INFORMATION*) -> BOOL { return TRUE; });
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(start.Calls(), 1);
  const auto failures = TakeLines(channel::kWinApiWrap);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].sourceFile, "modulestatus.cpp");
  EXPECT_EQ(failures[0].line, 1022);
  // A fault on the way is swallowed.
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(start.Calls(), 1);
}

constexpr int kHandedOver = 7;
std::string g_registered, g_debuggersFile;

// What a host does with a fault that nobody takes.
LONG WINAPI ReportAndAskDebugger(EXCEPTION_POINTERS* fault) {
  VemoExceptLogOut(L"fault", "", fault->ExceptionRecord, fault->ContextRecord, 1, "host.cpp");
  const LONG result = AeDebuggerUnhandledExceptionFilter();
  // An attached debugger would have the process now.
  if (result == EXCEPTION_CONTINUE_EXECUTION && std::filesystem::exists(g_debuggersFile)) {
    TerminateProcess(GetCurrentProcess(), kHandedOver);
  }
  return result;
}

// arguments: what is registered, the file that the debugger writes.
CHILD_ROLE(FaultWithDebugger) {
  LogFolder();
  g_registered = arguments[0];
  g_debuggersFile = arguments[1];
  const auto profile = STAND_IN(GetProfileStringA, [](int, const char*, const char*, const char*, char* text,
                                                      DWORD size) { return Profile(g_registered, text, size); });
  SetUnhandledExceptionFilter(&ReportAndAskDebugger);
  return CallReadThrough(nullptr);
}

// arguments: the process, its event, a file that says that it was here.
CHILD_ROLE(AttachDebugger) {
  WriteWholeFile(arguments[2], arguments[0]);
  return SetEvent(reinterpret_cast<HANDLE>(std::stoul(arguments[1]))) ? 0 : 1;
}

TEST(DebuggerFilter, HandsAFaultToARealDebugger) {
  SKIP_UNDER_ASAN();
  LogFolder();
  const ScratchFolder folder;
  const auto file = folder.Path() / "debugger.txt";
  const auto reportFile = ChannelFile(channel::kExceptionReport);
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  const std::string debugger = std::string(program) + " --role=AttachDebugger %lu %lu " + file.string();
  const int diedOfFault = sizeof(wchar_t) == 2 ? static_cast<int>(EXCEPTION_ACCESS_VIOLATION) : -11;
  for (const auto& [registered, end] : {std::pair{debugger, kHandedOver},
                                        {(folder.Path() / "no debugger").string() + " %lu %lu", diedOfFault},
                                        {std::string(), diedOfFault}}) {
    SCOPED_TRACE(registered);
    std::filesystem::remove(reportFile);
    ChildProcess child("FaultWithDebugger", {registered, file.string()});
    EXPECT_EQ(child.Wait(), end);
    if (end == kHandedOver) {
      EXPECT_EQ(ReadWholeFile(file), std::to_string(child.Id()));
      std::filesystem::remove(file);
    }
    EXPECT_FALSE(std::filesystem::exists(file));
    ReportReader reader(ReadWholeFile(reportFile));
    EXPECT_EQ(ReadExceptionReport(reader).frames.at(0).function, "ReadThrough");
    EXPECT_TRUE(reader.AtEnd());
  }
  std::filesystem::remove(reportFile);
}

TEST(ThreadPriority, CorrespondsToAProcessPriority) {
  const std::pair<int, DWORD> expected[] = {{-15, 0x40}, {-2, 0x40},  {-1, 0x4000}, {0, 0x20},         {1, 0x8000},
                                            {2, 0x80},   {15, 0x100}, {3, 0x20},    {0x7FFFFFFF, 0x20}};
  int priority = 0;
  const auto call = STAND_IN(GetThreadPriority, [&](int, HANDLE) {
    if (priority == 99) throw priority;
    return priority;
  });
  for (const auto& [thread, process] : expected) {
    priority = thread;
    EXPECT_EQ(VemoThreadPriToProcPri(), process) << thread;
  }
  LogFolder();
  TakeLines(channel::kModuleStatusError);
  priority = 99;
  EXPECT_EQ(VemoThreadPriToProcPri(), 0x20u);
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError),
            (std::vector<std::string>{"VemoThreadPriToProcPri(catch(...))"}));
}

}  // namespace
}  // namespace qel::test
