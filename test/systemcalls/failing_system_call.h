// Lets one system call of this thread fail, counted from the start of the scope.
//
//   FailingSystemCall failing({.nth = 3, .error = ENOSPC});
//   ... call the library ...
//   failing.Stop();
//   failing.Count();   // how many system calls there were
//
// The kernel hands every system call of the thread to a signal handler (PR_SET_SYSCALL_USER_DISPATCH), which counts it,
// and either lets it be made or answers it itself. Calls that give something back, like close, are made and fail all
// the same, as the real ones do. Other threads are not concerned. Linux 5.11 and later.
#pragma once
#include <vector>

namespace qel::test {

// How a system call may fail. The list has every call that the library makes; those without an error cannot fail.
struct SystemCallErrors {
  long number;
  const char* name;
  std::vector<int> errors;
  bool isMadeAllTheSame = false;
};
// Null for a call that has no row.
const SystemCallErrors* FindSystemCallErrors(long number);

struct SystemCallFailure {
  int nth = 0;  // from 1; 0 for none
  int error = 0;
  bool forEver = false;  // also every later call of the same number
};

class FailingSystemCall {
 public:
  static bool IsPossible();

  explicit FailingSystemCall(SystemCallFailure failure);
  FailingSystemCall(const FailingSystemCall&) = delete;
  FailingSystemCall& operator=(const FailingSystemCall&) = delete;
  ~FailingSystemCall() { Stop(); }

  void Stop();
  static int Count();
  static long Number(int nth);  // of the nth call, from 1
};

}  // namespace qel::test
