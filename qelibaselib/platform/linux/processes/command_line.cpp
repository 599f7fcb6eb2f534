#include "qelibaselib/platform/linux/processes/command_line.h"

#include <algorithm>

namespace qel::layer {
namespace {

constexpr std::string_view kBlanks = " \t";

void SkipBlanks(std::string_view* line) {
  line->remove_prefix(std::min(line->find_first_not_of(kBlanks), line->size()));
}

std::string TakeProgram(std::string_view* line) {
  const bool quoted = line->starts_with('"');
  if (quoted) line->remove_prefix(1);
  const size_t end = std::min(quoted ? line->find('"') : line->find_first_of(kBlanks), line->size());
  std::string program(line->substr(0, end));
  line->remove_prefix(std::min(end + 1, line->size()));
  return program;
}

size_t CountBackslashes(std::string_view line) { return std::min(line.find_first_not_of('\\'), line.size()); }

std::string TakeArgument(std::string_view* line) {
  std::string argument;
  bool quoted = false;
  while (!line->empty()) {
    const size_t backslashes = CountBackslashes(*line);
    line->remove_prefix(backslashes);
    const bool beforeQuote = line->starts_with('"');
    argument.append(beforeQuote ? backslashes / 2 : backslashes, '\\');
    if (line->empty()) break;
    const char next = line->front();
    if (!beforeQuote && !quoted && kBlanks.find(next) != kBlanks.npos) break;
    line->remove_prefix(1);
    if (!beforeQuote) {
      argument += next;
    } else if (backslashes % 2 != 0) {
      argument += '"';
    } else if (quoted && line->starts_with('"')) {
      argument += '"';
      line->remove_prefix(1);
    } else {
      quoted = !quoted;
    }
  }
  return argument;
}

}  // namespace

std::vector<std::string> SplitCommandLine(std::string_view line) {
  std::vector<std::string> parts;
  SkipBlanks(&line);
  if (line.empty()) return parts;
  parts.push_back(TakeProgram(&line));
  for (SkipBlanks(&line); !line.empty(); SkipBlanks(&line)) parts.push_back(TakeArgument(&line));
  return parts;
}

}  // namespace qel::layer
