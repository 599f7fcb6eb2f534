#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/proc_file.h"
#include "qelibaselib/platform/linux/processes/command_line.h"
#include "qelibaselib/platform/linux/processes/inherited_events.h"
#include "qelibaselib/platform/linux/processes/process_object.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr int kMaskBits = 32;

constinit std::atomic<DWORD> g_processId{0};  // stands in every log line

class ProcessTarget {
 public:
  explicit ProcessTarget(HANDLE handle)
      : pin_(handle),
        process_(handle == GetCurrentProcess() ? CurrentProcess() : pin_.As<ProcessObject>(Kind::kProcess)) {
    if (!process_) SetLastError(ERROR_INVALID_HANDLE);
  }
  explicit operator bool() const { return process_ != nullptr; }
  ProcessObject* operator->() const { return process_; }

 private:
  const Pin pin_;
  ProcessObject* const process_;
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

// A folder of PATH that may not be searched makes posix_spawnp answer EACCES for a program that is nowhere, too.
bool IsAnywhere(const std::string& program) {
  const char* const path = std::getenv("PATH");
  if (program.find('/') != program.npos || !path) return true;
  for (const char* folder = path;; ++folder) {
    const char* const end = strchrnul(folder, ':');
    if (faccessat(AT_FDCWD, (std::string(folder, end) + '/' + program).c_str(), F_OK, AT_EACCESS) == 0) return true;
    if (!*end) return false;
    folder = end;
  }
}

DWORD Spawn(std::string program, std::vector<std::string> arguments, bool inherit, pid_t* child) {
  std::replace(program.begin(), program.end(), '\\', '/');
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const InheritedEvents inherited = inherit ? ListInheritedEvents() : InheritedEvents{};
  ChildEnvironment environment(inherited);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Onto itself: leaves it open in the child, and there alone.
  for (const int descriptor : inherited.descriptors) posix_spawn_file_actions_adddup2(&actions, descriptor, descriptor);
  const int result = posix_spawnp(child, program.c_str(), &actions, nullptr, pointers.data(), environment.get());
  posix_spawn_file_actions_destroy(&actions);
  if (result == ENOEXEC) return ERROR_BAD_EXE_FORMAT;
  if (result == EACCES && !IsAnywhere(program)) return ERROR_FILE_NOT_FOUND;
  return result == 0 ? ERROR_SUCCESS : ErrorFromErrno(result);
}

DWORD StartProcess(LPCSTR application, LPSTR commandLine, bool inherit, Reference<ProcessObject>* process) {
  if (application && !*application) return ERROR_PATH_NOT_FOUND;
  std::vector<std::string> arguments;
  if (commandLine) arguments = SplitCommandLine(commandLine);
  if (arguments.empty() && application) arguments.emplace_back(application);
  if (arguments.empty() || arguments[0].empty()) return ERROR_INVALID_PARAMETER;
  std::string program = application ? application : arguments[0];
  pid_t child = 0;
  if (const DWORD error = Spawn(std::move(program), std::move(arguments), inherit, &child)) return error;
  *process = Reference<ProcessObject>::Adopt(new ProcessObject(child));
  return ERROR_SUCCESS;
}

// The processors of a process by their numbers below 32. One that may run on others alone is told of as many of the
// lowest, since a mask without a bit would mean that it cannot run at all.
DWORD ReadAffinityMask(pid_t process, DWORD* mask) {
  constexpr size_t kMostProcessors = 8192;
  constexpr size_t kWordBits = 8 * sizeof(unsigned long);
  unsigned long words[kMostProcessors / kWordBits] = {};
  const long bytes = syscall(SYS_sched_getaffinity, process, sizeof words, words);
  if (bytes <= 0) return ErrorFromErrno(errno);
  int count = 0;
  for (const unsigned long word : words) count += std::popcount(word);
  *mask = static_cast<DWORD>(words[0]);
  if (*mask == 0) *mask = static_cast<DWORD>((uint64_t{1} << std::clamp(count, 1, kMaskBits)) - 1);
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
  if (!processMask || !systemMask) return ReportResult(ERROR_INVALID_PARAMETER);
  const pid_t id = process->child() != 0 ? process->child() : getpid();  // its first thread: 0 would be the caller
  DWORD mask = 0;
  if (const DWORD error = ReadAffinityMask(id, &mask)) return ReportResult(error);
  *processMask = mask;
  *systemMask = OnlineProcessorMask() | mask;
  return TRUE;
}

BOOL CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES,
                    BOOL inheritHandles, DWORD flags, LPVOID environment, LPCSTR folder, LPSTARTUPINFOA startup,
                    LPPROCESS_INFORMATION information) {
  if (information) *information = {};
  const bool supported = flags == 0 && !environment && !folder && startup && information && startup->dwFlags == 0;
  if (!supported) return ReportResult(ERROR_INVALID_PARAMETER);
  Reference<ProcessObject> process;
  const DWORD error = StartProcess(application, commandLine, inheritHandles != FALSE, &process);
  if (error != ERROR_SUCCESS) return ReportResult(error);
  const HANDLE handle = InsertHandle(Reference<ProcessObject>::Share(process.get()).Detach());
  const HANDLE thread = InsertHandle(Reference<ProcessObject>::Share(process.get()).Detach());
  if (!handle || !thread) {
    if (handle) RemoveHandle(handle);
    process->Kill(1);
    return ReportResult(ERROR_TOO_MANY_OPEN_FILES);
  }
  const auto id = static_cast<DWORD>(process->child());
  *information = {handle, thread, id, id};
  return TRUE;
}

BOOL TerminateProcess(HANDLE handle, UINT exitCode) {
  const ProcessTarget process(handle);
  if (!process) return FALSE;
  return ReportResult(process->Kill(exitCode) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED);
}

BOOL GetExitCodeProcess(HANDLE handle, LPDWORD exitCode) {
  const ProcessTarget process(handle);
  if (!process) return FALSE;
  *exitCode = process->ExitCode();
  return TRUE;
}

BOOL IsDebuggerPresent() {
  char text[4096];
  const Descriptor status(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  const ssize_t length = status.get() >= 0 ? read(status.get(), text, sizeof text) : 0;
  return length > 0 && FieldReader({text, static_cast<size_t>(length)}).Find("TracerPid:") != 0;
}
