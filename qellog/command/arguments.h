/// @file
/// The command line. Help, man page and completion are made from one description of the commands and options.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "qellog/command/request.h"

namespace qellog {

using Command = Outcome (*)(const Request& request, Problems& problems, Output& output);

struct Call {
  Command command = nullptr;
  Request request;
  bool wantsPager = false;
};

/// What to run; nothing when the command line was answered (help, version) or refused. `exitCode` is set then.
std::optional<Call> ParseCommandLine(const std::vector<std::string>& arguments, int& exitCode);

}  // namespace qellog
