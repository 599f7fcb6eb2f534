// A part of a test that runs in a forked child, also as another user. Linux only.
#pragma once
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace qel::test {

inline constexpr uid_t kOtherUser = 65534;

// What `body` returns is the child's exit code. The child ends as a program does. An end by a signal is minus its
// number.
template <class Body>
int RunInChild(Body body) {
  const pid_t child = fork();
  if (child == 0) std::exit(body());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

template <class Body>
int RunAsOtherUser(Body body) {
  return RunInChild([&] {
    const bool changed =
        setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 && setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
    return changed ? static_cast<int>(body()) : 255;
  });
}

}  // namespace qel::test
