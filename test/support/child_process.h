// A second process for a test: the test program itself, started again in a role.
//
//   CHILD_ROLE(HoldFile) {                        // in the same .cpp; `arguments` is a vector of strings
//     ... open arguments[0] ...
//     qel::test::Say("held");
//     qel::test::Hear();                          // until the parent says something or goes away
//     return 0;
//   }
//   ChildProcess child("HoldFile", {path});
//   ASSERT_EQ(child.WaitForLine(), "held");
//   child.Kill();                                 // at any instruction, nothing of it runs any more
//
// A child logs into the log folder of its parent (test/support/log_folder.h). The end of the scope kills it.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qel::test {

class ChildProcess {
 public:
  explicit ChildProcess(const char* role, std::vector<std::string> arguments = {});
  ChildProcess(ChildProcess&&) noexcept;
  ~ChildProcess();

  unsigned long Id() const;
  // The next line that the child says; empty when it has ended without another one.
  std::string WaitForLine();
  void Tell(const std::string& line);
  // Ends it at whatever it does, and returns when it is gone.
  void Kill();
  // Waits for the end. The exit code; on Linux minus the signal that ended it.
  int Wait();
  bool Running();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// What a child does: says a line, hears one (empty when the parent has gone).
void Say(const std::string& line);
std::string Hear();

using Role = int (*)(const std::vector<std::string>& arguments);
struct RoleRegistration {
  RoleRegistration(const char* name, Role role);
};
// For main: plays the role that the command line names, or returns false.
bool PlayRole(int argumentCount, char** arguments, int& exitCode);

}  // namespace qel::test

#define CHILD_ROLE(name)                                                                 \
  static int PlayRole##name(const std::vector<std::string>& arguments);                  \
  static const qel::test::RoleRegistration g_registerRole##name(#name, &PlayRole##name); \
  static int PlayRole##name([[maybe_unused]] const std::vector<std::string>& arguments)
