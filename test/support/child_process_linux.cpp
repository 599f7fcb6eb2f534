#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "test/support/child_process.h"

extern char** environ;  // NOLINT

namespace qel::test {

struct ChildProcess::State {
  pid_t id = -1;
  FILE* fromChild = nullptr;
  int toChild = -1;
  bool ended = false;
  int exitCode = 0;

  void Reap(int options) {
    int status = 0;
    if (ended || waitpid(id, &status, options) != id) return;
    ended = true;
    exitCode = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
};

ChildProcess::ChildProcess(const char* role, std::vector<std::string> arguments) : state_(std::make_unique<State>()) {
  std::signal(SIGPIPE, SIG_IGN);
  int out[2], in[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  arguments.insert(arguments.begin(), {"/proc/self/exe", std::string("--role=") + role});
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (auto& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  const int error = posix_spawn(&state_->id, "/proc/self/exe", &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  state_->fromChild = fdopen(out[0], "r");
  state_->toChild = in[1];
  if (error != 0) throw std::runtime_error("posix_spawn");
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;

ChildProcess::~ChildProcess() {
  if (!state_) return;
  Kill();
  Wait();
  if (state_->fromChild) fclose(state_->fromChild);
  close(state_->toChild);
}

unsigned long ChildProcess::Id() const { return static_cast<unsigned long>(state_->id); }

std::string ChildProcess::WaitForLine() {
  std::string line;
  for (int c = 0; (c = fgetc(state_->fromChild)) != EOF && c != '\n';) line += static_cast<char>(c);
  return line;
}

void ChildProcess::Tell(const std::string& line) {
  const std::string text = line + "\n";
  if (write(state_->toChild, text.data(), text.size()) < 0) return;  // a child that has ended hears nothing
}

void ChildProcess::Kill() {
  state_->Reap(WNOHANG);
  if (state_->ended) return;
  kill(state_->id, SIGKILL);
  // The signal takes effect some time later. The exit code is left for Wait.
  siginfo_t information;
  while (waitid(P_PID, static_cast<id_t>(state_->id), &information, WEXITED | WNOWAIT) != 0 && errno == EINTR) continue;
}

int ChildProcess::Wait() {
  state_->Reap(0);
  return state_->exitCode;
}

bool ChildProcess::Running() {
  state_->Reap(WNOHANG);
  return !state_->ended;
}

}  // namespace qel::test
