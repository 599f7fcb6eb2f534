#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "qellog/system/terminal.h"

namespace qellog {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

std::string ReadAll(int file) {
  std::string text;
  char block[4096];
  for (ssize_t count = read(file, block, sizeof block); count > 0; count = read(file, block, sizeof block))
    text.append(block, static_cast<std::size_t>(count));
  return text;
}

/// The ends of a pipe that a child does not get but for the one that becomes its output.
struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) ends[0] = ends[1] = -1;
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    Close(0);
    Close(1);
  }
  void Close(int end) {
    if (ends[end] >= 0) close(ends[end]);
    ends[end] = -1;
  }
  int ends[2];
};

}  // namespace

std::FILE* OpenForWriting(const std::string& path) { return std::fopen(path.c_str(), "wbe"); }

bool IsTerminal(std::FILE* stream) { return isatty(fileno(stream)) == 1; }

std::size_t TerminalWidth() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 100;
}

void PrepareConsole() {}

std::vector<std::string> CommandLine(int count, char** values) { return {values + 1, values + count}; }

void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = [](int) { g_interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return g_interrupted != 0; }

Timestamp LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return {(now + local.tm_gmtoff) * std::int64_t{1000}};
}

std::string OutputOf(const std::vector<std::string>& commandLine) {
  Pipe pipe;
  std::vector<char*> arguments;
  arguments.reserve(commandLine.size() + 1);
  for (const std::string& argument : commandLine) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe.ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const bool started = posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  if (!started) return {};
  pipe.Close(1);
  std::string text = ReadAll(pipe.ends[0]);
  waitpid(child, nullptr, 0);
  return text;
}

std::FILE* OpenPager(const std::string& command) {
  setenv("LESS", "FRX", 0);
  std::signal(SIGPIPE, SIG_IGN);
  return popen(command.c_str(), "w");
}

void ClosePager(std::FILE* pager) { pclose(pager); }

}  // namespace qellog
