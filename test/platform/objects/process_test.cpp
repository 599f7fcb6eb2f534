#include <sys/wait.h>

#include <csignal>

#include "test/platform/objects/handles.h"
#include "test/support/library.h"

using namespace qel::test;

namespace {

std::string OwnProgram() {
  char path[1024] = {};
  GetModuleFileNameA(nullptr, path, sizeof path);
  return path;
}

struct Started {
  Handle process, thread;
  DWORD id = 0;
};
Started Start(std::string commandLine, BOOL inherit = FALSE) {
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION information{};
  if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, inherit, 0, nullptr, nullptr, &startup,
                      &information))
    return {};
  return {Handle(information.hProcess), Handle(information.hThread), information.dwProcessId};
}
Started StartRole(const std::string& role, const std::string& arguments = {}, BOOL inherit = FALSE) {
  return Start('"' + OwnProgram() + "\" --role=" + role + ' ' + arguments, inherit);
}
DWORD ExitCode(HANDLE process) {
  DWORD code = 0;
  EXPECT_TRUE(GetExitCodeProcess(process, &code));
  return code;
}

// The exit code of a child that has been started and ends.
DWORD WaitForEnd(const Started& child) {
  EXPECT_TRUE(child.process);
  EXPECT_EQ(WaitForSingleObject(child.process, kLongMs), WAIT_OBJECT_0);
  return ExitCode(child.process);
}

CHILD_ROLE(SleepLong) {
  Sleep(kLongMs);
  return 0;
}
CHILD_ROLE(EndWithCode) { return std::stoi(arguments[0]); }

TEST(Processes, EndWithTheirCode) {
  const Handle event = NewEvent();
  const Started child = StartRole("EndWithCode", "42");
  ASSERT_TRUE(child.process);
  EXPECT_NE(child.id, GetCurrentProcessId());
  const HANDLE handles[] = {event, child.process};
  EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kLongMs), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(WaitForEnd(child), 42u);
  EXPECT_EQ(WaitForSingleObject(child.thread, kLongMs), WAIT_OBJECT_0);
}

TEST(Processes, RunUntilTheyAreEnded) {
  const Started child = StartRole("SleepLong");
  ASSERT_TRUE(child.process);
  EXPECT_CALL(WaitForSingleObject(child.process, 10), WAIT_TIMEOUT, kUntouched);
  EXPECT_EQ(ExitCode(child.process), STILL_ACTIVE);
  EXPECT_TRUE(TerminateProcess(child.process, 9));
  EXPECT_EQ(WaitForEnd(child), 9u);
}

TEST(Processes, GoOnWithoutAHandle) {
  const std::wstring name = UniqueName();
  const Handle event = CreateEventW(nullptr, FALSE, FALSE, name.c_str());
  StartRole("SignalEvent", Narrow(name));
  EXPECT_EQ(WaitForSingleObject(event, kLongMs), WAIT_OBJECT_0);
}

// The kernel's entry of a child whose handles were closed before it ended goes with the next such child.
TEST(Processes, LeaveNoEntryWithoutAHandle) {
  const auto end = [] {
    const DWORD id = StartRole("SleepLong").id;
    kill(static_cast<pid_t>(id), SIGKILL);
    return id;
  };
  const DWORD id = end();
  siginfo_t status;
  EXPECT_EQ(waitid(P_PID, id, &status, WEXITED | WNOWAIT), 0);
  end();
  EXPECT_NE(waitid(P_PID, id, &status, WEXITED | WNOWAIT | WNOHANG), 0);
}

const std::vector<std::string>& OddArguments() {
  static const std::vector<std::string> arguments = {"plain", "a b", "", "quo\"te", "back\\slash", "tail\\", "a\\\"b"};
  return arguments;
}
CHILD_ROLE(CompareArguments) { return arguments == OddArguments() ? 3 : 4; }

TEST(Processes, ReadTheirCommandLineByTheQuotingRules) {
  const Started child =
      StartRole("CompareArguments", "plain   \"a b\" \"\" quo\\\"te back\\slash \"tail\\\\\" \"a\\\\\\\"b\" ");
  EXPECT_EQ(WaitForEnd(child), 3u);
}

TEST(Processes, AProgramThatIsMissing) {
  EXPECT_CALL(Start("no-such-program-qel arguments").id, 0u, ERROR_FILE_NOT_FOUND);
  char commandLine[] = "no-such-program-qel";
  for (const auto& [program, error] :
       {std::pair{"", ERROR_PATH_NOT_FOUND}, {"no-such-program-qel", ERROR_FILE_NOT_FOUND}}) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information;
    std::memset(&information, 0xEE, sizeof information);
    EXPECT_CALL(
        CreateProcessA(program, commandLine, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information),
        FALSE, error);
    EXPECT_EQ(information.hProcess, nullptr);
    EXPECT_EQ(information.hThread, nullptr);
    EXPECT_EQ(information.dwProcessId | information.dwThreadId, 0u);
  }
}

// How a debugger is handed the event that tells of its being attached: the handle is written into its command line.
CHILD_ROLE(SignalInherited) {
  return SetEvent(reinterpret_cast<HANDLE>(std::stoul(arguments[0], nullptr, 16))) ? 0 : 1;
}
Handle InheritableEvent() {
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  return CreateEventW(&inherit, FALSE, FALSE, nullptr);
}
std::string ValueOf(HANDLE handle) {
  char text[16];
  std::snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(handle)));
  return text;
}

TEST(Processes, InheritAnEventUnderTheSameHandleWhenAsked) {
  const Handle other = InheritableEvent();
  for (const BOOL inherit : {TRUE, FALSE, TRUE}) {
    const Handle event = InheritableEvent();
    const Started child = StartRole("SignalInherited", ValueOf(event), inherit);
    const DWORD code = WaitForEnd(child);
    EXPECT_TRUE(!inherit || code == 0) << code;
    EXPECT_EQ(WaitForSingleObject(event, 0), inherit ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_TIMEOUT);
  }
}

CHILD_ROLE(CountHandles) { return static_cast<int>(OpenHandleCount()); }

TEST(Processes, CountTheHandlesThatTheyInherit) {
  const Handle event = InheritableEvent();
  DWORD counts[2] = {};
  for (const BOOL inherit : {FALSE, TRUE}) counts[inherit] = WaitForEnd(StartRole("CountHandles", {}, inherit));
  EXPECT_EQ(counts[TRUE], counts[FALSE] + 1);
}

TEST(Processes, TheOwnOne) {
  EXPECT_EQ(ExitCode(GetCurrentProcess()), STILL_ACTIVE);
  DWORD_PTR own = 0, all = 0;
  EXPECT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &own, &all));
  EXPECT_NE(own, 0u);
  EXPECT_EQ(own & ~all, 0u);
  EXPECT_CALL(GetProcessAffinityMask(nullptr, &own, &all), FALSE, ERROR_INVALID_HANDLE);
  EXPECT_FALSE(IsDebuggerPresent());
}

}  // namespace
