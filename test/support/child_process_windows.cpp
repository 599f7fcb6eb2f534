#include <stdexcept>

#include "qelibaselib/platform/win32.h"
#include "test/support/child_process.h"

namespace qel::test {

struct ChildProcess::State {
  PROCESS_INFORMATION process{};
  HANDLE fromChild = nullptr;
  HANDLE toChild = nullptr;
};

namespace {

struct Pipe {
  HANDLE read = nullptr, write = nullptr;
};
// `inherited` is the end that the child gets.
Pipe MakePipe(HANDLE Pipe::*inherited) {
  Pipe pipe;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  if (!CreatePipe(&pipe.read, &pipe.write, &inherit, 0)) throw std::runtime_error("CreatePipe");
  HANDLE own = inherited == &Pipe::read ? pipe.write : pipe.read;
  SetHandleInformation(own, HANDLE_FLAG_INHERIT, 0);
  return pipe;
}

std::string Quoted(const std::string& argument) {
  std::string result = "\"";
  for (char c : argument) {
    if (c == '"') result += '\\';
    result += c;
  }
  if (!argument.empty() && argument.back() == '\\') result += '\\';
  return result + "\"";
}

}  // namespace

ChildProcess::ChildProcess(const char* role, std::vector<std::string> arguments) : state_(std::make_unique<State>()) {
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof program);
  std::string commandLine = Quoted(program) + " --role=" + role;
  for (const auto& argument : arguments) commandLine += " " + Quoted(argument);
  const Pipe in = MakePipe(&Pipe::read), out = MakePipe(&Pipe::write);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.read;
  startup.hStdOutput = out.write;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  const BOOL started = CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                      &startup, &state_->process);
  CloseHandle(in.read);
  CloseHandle(out.write);
  state_->fromChild = out.read;
  state_->toChild = in.write;
  if (!started) throw std::runtime_error("CreateProcess");
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;

ChildProcess::~ChildProcess() {
  if (!state_) return;
  Kill();
  Wait();
  for (HANDLE handle : {state_->fromChild, state_->toChild, state_->process.hThread, state_->process.hProcess})
    if (handle) CloseHandle(handle);
}

unsigned long ChildProcess::Id() const { return state_->process.dwProcessId; }

std::string ChildProcess::WaitForLine() {
  std::string line;
  char c = 0;
  for (DWORD read = 0; ReadFile(state_->fromChild, &c, 1, &read, nullptr) && read == 1 && c != '\n';)
    if (c != '\r') line += c;
  return line;
}

void ChildProcess::Tell(const std::string& line) {
  const std::string text = line + "\n";
  DWORD written = 0;
  WriteFile(state_->toChild, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void ChildProcess::Kill() {
  if (!Running()) return;
  TerminateProcess(state_->process.hProcess, 9);
  WaitForSingleObject(state_->process.hProcess, INFINITE);
}

int ChildProcess::Wait() {
  DWORD code = 0;
  WaitForSingleObject(state_->process.hProcess, INFINITE);
  GetExitCodeProcess(state_->process.hProcess, &code);
  return static_cast<int>(code);
}

bool ChildProcess::Running() {
  return state_->process.hProcess && WaitForSingleObject(state_->process.hProcess, 0) == WAIT_TIMEOUT;
}

}  // namespace qel::test
