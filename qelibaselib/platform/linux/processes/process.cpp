#include <sched.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/handles/inheritance.h"
#include "qelibaselib/platform/linux/processes/command_line.h"
#include "qelibaselib/platform/linux/processes/process_object.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr int kMaskBits = 32;

constinit std::atomic<DWORD> g_processId{0};  // stands in every log line

BOOL Answer(DWORD error) {
  if (error != ERROR_SUCCESS) SetLastError(error);
  return error == ERROR_SUCCESS;
}

class ProcessTarget {
 public:
  explicit ProcessTarget(HANDLE handle)
      : pin_(handle), process_(handle == GetCurrentProcess() ? CurrentProcess() : pin_.As<Process>(Kind::kProcess)) {
    if (!process_) SetLastError(ERROR_INVALID_HANDLE);
  }
  explicit operator bool() const { return process_ != nullptr; }
  Process* operator->() const { return process_; }

 private:
  const Pin pin_;
  Process* const process_;
};

// The variables of a child: the own ones, with the list of what it inherits.
class ChildEnvironment {
 public:
  explicit ChildEnvironment(const InheritedEvents& inherited) {
    const std::string name = std::string(kInheritedEventsVariable) + '=';
    for (char** variable = environ; *variable; ++variable)
      if (std::strncmp(*variable, name.c_str(), name.size()) != 0) variables_.push_back(*variable);
    inherited_ = name + inherited.value;
    if (!inherited.value.empty()) variables_.push_back(inherited_.data());
    variables_.push_back(nullptr);
  }
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;
  char** get() { return variables_.data(); }

 private:
  std::string inherited_;
  std::vector<char*> variables_;
};

DWORD Spawn(std::string program, std::vector<std::string> arguments, bool inherit, pid_t* child) {
  std::replace(program.begin(), program.end(), '\\', '/');
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const InheritedEvents inherited = inherit ? ListInheritance() : InheritedEvents{};
  ChildEnvironment environment(inherited);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Onto itself: leaves it open in the child, and there alone.
  for (const int descriptor : inherited.descriptors) posix_spawn_file_actions_adddup2(&actions, descriptor, descriptor);
  const int result = posix_spawnp(child, program.c_str(), &actions, nullptr, pointers.data(), environment.get());
  posix_spawn_file_actions_destroy(&actions);
  if (result == ENOEXEC) return ERROR_BAD_EXE_FORMAT;
  return result == 0 ? ERROR_SUCCESS : ErrorFromErrno(result);
}

DWORD StartProcess(LPCSTR application, LPSTR commandLine, bool inherit, Reference<Process>* process) {
  std::vector<std::string> arguments;
  if (commandLine) arguments = SplitCommandLine(commandLine);
  if (arguments.empty() && application) arguments.emplace_back(application);
  if (arguments.empty() || arguments[0].empty()) return ERROR_INVALID_PARAMETER;
  std::string program = application ? application : arguments[0];
  pid_t child = 0;
  if (const DWORD error = Spawn(std::move(program), std::move(arguments), inherit, &child)) return error;
  *process = Reference<Process>::Adopt(new Process(child));
  return ERROR_SUCCESS;
}

DWORD OnlineProcessorMask() {
  const long count = std::clamp(sysconf(_SC_NPROCESSORS_CONF), 1l, long{kMaskBits});
  return static_cast<DWORD>((uint64_t{1} << count) - 1);
}

}  // namespace

void ForgetProcessId() { g_processId.store(0, std::memory_order_relaxed); }

}  // namespace qel::layer

using namespace qel::layer;

HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)); }

DWORD GetCurrentProcessId() {
  DWORD id = g_processId.load(std::memory_order_relaxed);
  if (id == 0) g_processId.store(id = static_cast<DWORD>(getpid()), std::memory_order_relaxed);
  return id;
}

BOOL GetProcessAffinityMask(HANDLE handle, PDWORD_PTR processMask, PDWORD_PTR systemMask) {
  const ProcessTarget process(handle);
  if (!process) return FALSE;
  if (!processMask || !systemMask) return Answer(ERROR_INVALID_PARAMETER);
  cpu_set_t set;
  const pid_t id = process->child() != 0 ? process->child() : getpid();  // its first thread: 0 would be the caller
  if (sched_getaffinity(id, sizeof set, &set) != 0) return Answer(ErrorFromErrno(errno));
  DWORD mask = 0;
  for (int i = 0; i < kMaskBits; ++i)
    if (CPU_ISSET(i, &set)) mask |= 1ul << i;
  *processMask = mask;
  *systemMask = OnlineProcessorMask() | mask;
  return TRUE;
}

BOOL CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES,
                    BOOL inheritHandles, DWORD flags, LPVOID environment, LPCSTR folder, LPSTARTUPINFOA startup,
                    LPPROCESS_INFORMATION information) {
  const bool supported = flags == 0 && !environment && !folder && startup && information && startup->dwFlags == 0;
  if (!supported) return Answer(ERROR_INVALID_PARAMETER);
  Reference<Process> process;
  const DWORD error = StartProcess(application, commandLine, inheritHandles != FALSE, &process);
  if (error != ERROR_SUCCESS) return Answer(error);
  const auto id = static_cast<DWORD>(process->child());
  const HANDLE handle = InsertHandle(Reference<Process>::Share(process.get()).Detach());
  const HANDLE thread = InsertHandle(Reference<Process>::Share(process.get()).Detach());
  *information = {handle, thread, id, id};
  return TRUE;
}

BOOL TerminateProcess(HANDLE handle, UINT exitCode) {
  const ProcessTarget process(handle);
  if (!process) return FALSE;
  return Answer(process->Kill(exitCode) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED);
}

BOOL GetExitCodeProcess(HANDLE handle, LPDWORD exitCode) {
  const ProcessTarget process(handle);
  if (!process) return FALSE;
  *exitCode = process->ExitCode();
  return TRUE;
}

BOOL IsDebuggerPresent() {
  constexpr char kLine[] = "TracerPid:";
  FILE* status = std::fopen("/proc/self/status", "re");
  if (!status) return FALSE;
  char line[256];
  long tracer = 0;
  while (std::fgets(line, sizeof line, status))
    if (std::strncmp(line, kLine, sizeof kLine - 1) == 0) tracer = std::strtol(line + sizeof kLine - 1, nullptr, 10);
  std::fclose(status);
  return tracer != 0;
}
