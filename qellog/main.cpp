// qellog: reads a folder of logs. See docs/qellog.md.
#include <cstdlib>

#include "qellog/command/arguments.h"
#include "qellog/system/terminal.h"

namespace {

using namespace qellog;

constexpr std::size_t kOutputBuffer = 256u << 10;

/// Standard output, or the pager that $PAGER names.
class Screen {
 public:
  explicit Screen(bool wantsPager) {
    const char* const command = wantsPager ? std::getenv("PAGER") : nullptr;
    if (command && *command) pager_ = OpenPager(command);
    std::setvbuf(Stream(), nullptr, _IOFBF, kOutputBuffer);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen() {
    if (pager_) ClosePager(pager_);
  }
  std::FILE* Stream() { return pager_ ? pager_ : stdout; }

 private:
  std::FILE* pager_ = nullptr;
};

int Run(const Call& call) {
  Screen screen(call.wantsPager);
  Output output(screen.Stream());
  Problems problems;
  const Outcome outcome = call.command(call.request, problems, output);
  output.Flush();
  return static_cast<int>(problems.Any() ? Outcome::kUnreadable : outcome);
}

}  // namespace

int main(int count, char** values) {
  PrepareConsole();
  int exitCode = 0;
  const auto call = ParseCommandLine(CommandLine(count, values), exitCode);
  if (!call) return exitCode;
  try {
    return Run(*call);
  } catch (const OutputClosed&) {
    return 0;
  }
}
