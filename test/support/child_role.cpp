#include <cstdio>
#include <cstring>
#include <map>

#include "test/support/child_process.h"

namespace qel::test {
namespace {

constexpr char kRoleArgument[] = "--role=";

std::map<std::string, Role>& Roles() {
  static std::map<std::string, Role> roles;
  return roles;
}

}  // namespace

RoleRegistration::RoleRegistration(const char* name, Role role) { Roles()[name] = role; }

bool PlayRole(int argumentCount, char** arguments, int& exitCode) {
  if (argumentCount < 2 || std::strncmp(arguments[1], kRoleArgument, sizeof kRoleArgument - 1) != 0) return false;
  const auto role = Roles().find(arguments[1] + sizeof kRoleArgument - 1);
  if (role == Roles().end()) {
    std::fprintf(stderr, "no role %s\n", arguments[1]);
    exitCode = 127;
  } else {
    exitCode = role->second({arguments + 2, arguments + argumentCount});
  }
  return true;
}

void Say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string Hear() {
  std::string line;
  for (int c = 0; (c = std::getchar()) != EOF && c != '\n';)
    if (c != '\r') line += static_cast<char>(c);
  return line;
}

}  // namespace qel::test
