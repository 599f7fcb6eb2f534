// fuzz-sources: qelibaselib/platform/linux/processes/command_line.cpp

// Command lines on any bytes. What the splitter makes of them is also quoted as Windows programs quote their arguments,
// and must come back as it was.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "qelibaselib/platform/linux/processes/command_line.h"

namespace {

std::string QuoteArgument(const std::string& argument) {
  std::string quoted = "\"";
  size_t backslashes = 0;
  for (const char c : argument) {
    if (c == '"') quoted.append(backslashes + 1, '\\');
    backslashes = c == '\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  quoted.append(backslashes, '\\');
  return quoted + '"';
}

// The program cannot hold a quote, since nothing escapes one there.
bool CanBeProgram(const std::string& text) { return text.find('"') == text.npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  const auto parts = qel::layer::SplitCommandLine({reinterpret_cast<const char*>(bytes), count});
  if (parts.empty() || !CanBeProgram(parts[0])) return 0;
  std::string line = '"' + parts[0] + '"';
  for (size_t i = 1; i < parts.size(); ++i) line += ' ' + QuoteArgument(parts[i]);
  if (qel::layer::SplitCommandLine(line) != parts) std::abort();
  return 0;
}
