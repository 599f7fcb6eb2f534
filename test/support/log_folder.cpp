#include "test/support/log_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "qelibaselib/qelibaselib.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace fs = std::filesystem;
namespace {

constexpr char kFolderVariable[] = "QEL_TEST_LOG_FOLDER";

void SetVariable(const std::string& value) {
  // Both forms exist on both targets' C libraries under one name or the other; putenv is the common one.
  static std::string setting;
  setting = std::string(kFolderVariable) + "=" + value;
  putenv(setting.data());
}

// Owns the folder in the process that made it; a child only uses it.
struct Folder {
  std::unique_ptr<ScratchFolder> own;
  fs::path path;
  Folder() {
    if (const char* parents = std::getenv(kFolderVariable)) {
      path = parents;
    } else {
      own = std::make_unique<ScratchFolder>();
      path = own->Path();
      SetVariable(path.string());
    }
    VemoSetLogPath(path.wstring().c_str());
  }
};

// The tests of a program that looks at logs have a log folder from the start. A role may be one that has none yet.
struct FolderFromTheStart : testing::Environment {
  void SetUp() override { LogFolder(); }
};
const auto* const g_fromTheStart = testing::AddGlobalTestEnvironment(new FolderFromTheStart);

constexpr std::string_view kTimeForm = "0000/00/00, 00:00:00.000";

// Whether the text begins with the form, in which a 0 stands for any digit.
bool BeginsWith(std::string_view text, std::string_view form) {
  const auto fits = [](char character, char wanted) {
    return wanted == '0' ? character >= '0' && character <= '9' : character == wanted;
  };
  return text.size() >= form.size() && std::equal(form.begin(), form.end(), text.begin(),
                                                  [&](char wanted, char given) { return fits(given, wanted); });
}

bool StartsLine(std::string_view text) {
  return BeginsWith(text, kTimeForm) && text.substr(kTimeForm.size()).starts_with(", ML=");
}

// Process and thread stand behind the program, whose name may look like numbers too: ", 12, 34, ".
size_t FindIds(const std::string& text, size_t from, LogLine& line) {
  for (size_t at = from; (at = text.find(", ", at)) != std::string::npos; ++at) {
    int length = 0;
    if (std::sscanf(text.c_str() + at, ", %lu, %lu, %n", &line.processId, &line.threadId, &length) == 2 && length > 0) {
      line.program = text.substr(from, at - from);
      return at + static_cast<size_t>(length);
    }
  }
  return std::string::npos;
}

// "source(line):", the first that has this form.
size_t FindPosition(const std::string& text, size_t from, LogLine& line) {
  for (size_t at = from; (at = text.find('(', at)) < text.find('\n', from); ++at) {
    int length = 0;
    if (std::sscanf(text.c_str() + at, "(%d):%n", &line.line, &length) == 1 && length > 0) {
      line.sourceFile = text.substr(from, at - from);
      return at + static_cast<size_t>(length);
    }
  }
  return std::string::npos;
}

// Lines as they are in the file, without their CR LF; what does not start one is glued to the line before.
std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    size_t end = text.find("\r\n", begin);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(begin, end - begin);
    if (lines.empty() || StartsLine(line))
      lines.push_back(line);
    else
      lines.back() += "\n" + line;
    begin = end + 2;
  }
  return lines;
}

}  // namespace

const fs::path& LogFolder() {
  static const Folder folder;
  return folder.path;
}

fs::path ChannelFile(const LogChannel& channel) { return LogFolder() / channel.fileName; }

bool ParseLine(const std::string& text, LogLine& line) {
  int length = 0;
  if (!BeginsWith(text, kTimeForm)) return false;
  line.time = text.substr(0, kTimeForm.size());
  if (std::sscanf(text.c_str() + kTimeForm.size(), ", ML=%u, %n", &line.memoryLoad, &length) != 1 || length == 0)
    return false;
  const size_t ids = FindIds(text, kTimeForm.size() + static_cast<size_t>(length), line);
  if (ids == std::string::npos) return false;
  const size_t message = FindPosition(text, ids, line);
  if (message == std::string::npos) return false;
  line.message = text.substr(message);
  return true;
}

std::vector<LogLine> ReadLines(const LogChannel& channel) { return ReadLines(ChannelFile(channel)); }

std::vector<LogLine> ReadLines(const fs::path& file) {
  std::vector<LogLine> lines;
  for (const std::string& text : SplitLines(ReadWholeFile(file))) {
    LogLine line;
    if (ParseLine(text, line))
      lines.push_back(std::move(line));
    else
      ADD_FAILURE() << "no log line: " << text.substr(0, 200);
  }
  return lines;
}

std::vector<LogLine> TakeLines(const LogChannel& channel) {
  auto lines = ReadLines(channel);
  std::error_code ignored;
  fs::remove(ChannelFile(channel), ignored);
  return lines;
}

Messages TakeMessages(const LogChannel& channel) {
  Messages messages;
  for (auto& line : TakeLines(channel)) messages.push_back(std::move(line.message));
  return messages;
}

Messages TakePlacedMessages(const LogChannel& channel) {
  Messages messages;
  for (const auto& line : TakeLines(channel))
    messages.push_back(line.sourceFile + "(" + std::to_string(line.line) + "): " + line.message);
  return messages;
}

}  // namespace qel::test
