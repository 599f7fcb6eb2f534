#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"
#include "test/support/bad_pointer.h"

namespace qel::test {
namespace {

// The filter in a process that has no debugger, with a command registered.
class DebuggerFilter : public ReportTest {
 protected:
  // What the filter starts, with this command and a debugger that does not start; empty for nothing.
  std::string Started(const std::string& command) {
    registered_ = command;
    const int before = start_.Calls();
    command_.clear();
    EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
    EXPECT_EQ(start_.Calls() - before, command_.empty() ? 0 : 1);
    return command_;
  }
  std::string registered_ = "%lu %lu";
  std::string command_;
  HANDLE event_ = nullptr;  // of the last command
  std::function<BOOL(PROCESS_INFORMATION& started)> startDebugger_ = [](PROCESS_INFORMATION&) { return FALSE; };

  StandIn<"IsDebuggerPresent", decltype(&::IsDebuggerPresent)> debugger_{[](int) { return FALSE; }};
  StandIn<"GetProfileStringA", decltype(&::GetProfileStringA)> profile_{
      [this](int, const char* section, const char* key, const char* fallback, char* text, DWORD size) {
        EXPECT_EQ(std::string(section) + "." + key, "AeDebug.Debugger");
        EXPECT_EQ(fallback, nullptr);
        EXPECT_EQ(size, 259u);
        return static_cast<DWORD>(std::snprintf(text, size, "%.258s", registered_.c_str()));
      }};
  StandIn<"CreateEventW", decltype(&::CreateEventW)> create_{
      [this](int, SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState, const wchar_t* name) {
        EXPECT_TRUE(security && security->bInheritHandle && manualReset && !initialState && !name);
        return event_ = CreateEventW(security, manualReset, initialState, name);
      }};
  StandIn<"CreateProcessA", decltype(&::CreateProcessA)> start_{
      [this](int, const char* application, char* command, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL inherit,
             DWORD flags, void* environment, const char* folder, STARTUPINFOA* startup, PROCESS_INFORMATION* started) {
        EXPECT_TRUE(!application && inherit && flags == 0 && !environment && !folder);
        EXPECT_EQ(startup->cb, sizeof *startup);
        EXPECT_STREQ(startup->lpDesktop, "Winsta0\\Default");
        command_ = command;
        return startDebugger_(*started);
      }};
};

TEST_F(DebuggerFilter, PutsProcessAndEventIntoTheCommand) {
  const struct {
    std::string registered;
    const char* started;  // with the process and the event as numbers
  } cases[] = {
      {"debug -p %ld -e %ld", "debug -p %lu -e %lu"},
      {"%d|%08x|%u|%lu|%I64u", "%lu|%08lx|0|0|0"},
      {"100%% %u %p %p", "100%% %lu %08lX 00000000"},
      {"%-12d|", "%-12lu|"},
      {"%.8d", "%.8lu"},
      {"plain", "plain"},
  };
  for (const auto& [registered, started] : cases) {
    const std::string command = Started(registered);
    EXPECT_EQ(command, Print(started, GetCurrentProcessId(), Number(event_))) << registered;
  }
  EXPECT_EQ(Started(std::string(300, 'x')), std::string(258, 'x'));
  for (const char* wide : {"%9999d", "%4000d%4000d%.4000d%999999999999999999d"}) EXPECT_EQ(Started(wide).size(), 4095u);
  EXPECT_EQ(create_.Calls(), start_.Calls());
}

TEST_F(DebuggerFilter, RefusesOtherConversions) {
  for (const char* command : {"", "%s", "debug %n", "%f %d", "%d %c", "%*d", "%.*d", "%d %", "%", "%q", "%ls", "%hn",
                              "%d %d %s", "%5", "% "}) {
    EXPECT_EQ(Started(command), "") << command;
  }
  EXPECT_EQ(create_.Calls(), 0);
}

TEST_F(DebuggerFilter, WaitsForTheDebuggersSignalOrItsEnd) {
  const auto wait = WATCH_CALL(WaitForMultipleObjects,
                               [](DWORD, const HANDLE*, BOOL, DWORD timeoutMs) { EXPECT_EQ(timeoutMs, INFINITE); });
  const auto close = COUNT_CALLS(CloseHandle);
  for (const BOOL ends : {FALSE, TRUE}) {
    startDebugger_ = [&](PROCESS_INFORMATION& started) {
      if (!ends) SetEvent(event_);
      started = {CreateEventW(nullptr, TRUE, ends, nullptr), CreateEventW(nullptr, TRUE, FALSE, nullptr), 0, 0};
      return TRUE;
    };
    EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), ends ? EXCEPTION_CONTINUE_SEARCH : EXCEPTION_CONTINUE_EXECUTION);
  }
  EXPECT_EQ(wait.Calls(), 2);
  EXPECT_EQ(close.Calls(), 4) << "the handles of process and thread";
}

TEST_F(DebuggerFilter, DoesNothingUnderADebugger) {
  const auto debugger = ANSWER_CALL(IsDebuggerPresent, TRUE);
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  EXPECT_EQ(profile_.Calls(), 0);
}

TEST_F(DebuggerFilter, SearchesOnAfterAFailure) {
  startDebugger_ = [](PROCESS_INFORMATION&) { return TRUE; };
  {
    const auto create = FAIL_CALL(CreateEventW, 1, ERROR_NOT_ENOUGH_MEMORY, nullptr);
    EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH);
  }
  EXPECT_EQ(start_.Calls(), 1) << "started, but not waited for";
  const Messages failures = TakePlacedMessages(channel::kWinApiWrap);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_TRUE(failures[0].starts_with("modulestatus.cpp(1022): lastErr=8, CreateEventX(")) << failures[0];
  const auto profile = FAULT_IN(GetProfileStringA);
  EXPECT_EQ(AeDebuggerUnhandledExceptionFilter(), EXCEPTION_CONTINUE_SEARCH) << "a fault on the way is swallowed";
  EXPECT_EQ(start_.Calls(), 1);
}

constexpr int kHandedOver = 7;
std::string g_registered, g_debuggersFile;

// What a host does with a fault that nobody takes.
LONG WINAPI ReportAndAskDebugger(EXCEPTION_POINTERS* fault) {
  VemoExceptLogOut(L"fault", "", fault->ExceptionRecord, fault->ContextRecord, 1, "host.cpp");
  const LONG result = AeDebuggerUnhandledExceptionFilter();
  // An attached debugger would have the process now.
  if (result == EXCEPTION_CONTINUE_EXECUTION && fs::exists(g_debuggersFile)) {
    TerminateProcess(GetCurrentProcess(), kHandedOver);
  }
  return result;
}

// arguments: what is registered, the file that the debugger writes.
CHILD_ROLE(FaultWithDebugger) {
  LogFolder();
  g_registered = arguments[0];
  g_debuggersFile = arguments[1];
  const auto profile =
      STAND_IN(GetProfileStringA, [](int, const char*, const char*, const char*, char* text, DWORD size) {
        return static_cast<DWORD>(std::snprintf(text, size, "%s", g_registered.c_str()));
      });
  SetUnhandledExceptionFilter(&ReportAndAskDebugger);
  return CallReadThrough(nullptr);
}

// arguments: the process, its event, a file that says that it was here.
CHILD_ROLE(AttachDebugger) {
  WriteWholeFile(arguments[2], arguments[0]);
  return SetEvent(reinterpret_cast<HANDLE>(std::stoul(arguments[1]))) ? 0 : 1;
}

TEST_F(ReportTest, HandsAFaultToARealDebugger) {
  SKIP_UNDER_ASAN();
  const ScratchFolder folder;
  const auto file = folder.Path() / "debugger.txt";
  const std::string debugger = ProgramPath() + " --role=AttachDebugger %lu %lu " + file.string();
  const int diedOfFault = sizeof(wchar_t) == 2 ? static_cast<int>(EXCEPTION_ACCESS_VIOLATION) : -11;
  for (const auto& [registered, end] : {std::pair{debugger, kHandedOver},
                                        {(folder.Path() / "no debugger").string() + " %lu %lu", diedOfFault},
                                        {std::string(), diedOfFault}}) {
    SCOPED_TRACE(registered);
    ChildProcess child("FaultWithDebugger", {registered, file.string()});
    EXPECT_EQ(child.Wait(), end);
    if (end == kHandedOver) {
      EXPECT_EQ(ReadWholeFile(file), std::to_string(child.Id()));
      fs::remove(file);
    }
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(TakeOnlyExceptionReport().frames.at(0).function, "ReadThrough");
  }
}

TEST_F(ReportTest, ThreadPriorityCorrespondsToAProcessPriority) {
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
  priority = 99;
  EXPECT_EQ(VemoThreadPriToProcPri(), 0x20u);
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{"VemoThreadPriToProcPri(catch(...))"});
}

}  // namespace
}  // namespace qel::test
