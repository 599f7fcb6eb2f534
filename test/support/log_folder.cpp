#include "test/support/log_folder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

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

const std::regex& LineForm() {
  static const std::regex form(
      R"((\d{4}/\d\d/\d\d, \d\d:\d\d:\d\d\.\d{3}), ML=(\d+), (.*?), (\d+), (\d+), ([^\n]*?)\((-?\d+)\):([^]*))");
  return form;
}

bool StartsLine(const std::string& text) {
  static const std::regex start(R"(\d{4}/\d\d/\d\d, \d\d:\d\d:\d\d\.\d{3}, ML=)");
  return std::regex_search(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(text.size(), 32)),
                           start, std::regex_constants::match_continuous);
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
  std::smatch match;
  // The message may be a megabyte: only what stands before it goes through the expression.
  const std::string head = text.substr(0, std::min<size_t>(text.size(), 2048));
  if (!std::regex_match(head, match, LineForm())) return false;
  const size_t messageBegin = static_cast<size_t>(match.position(8));
  line = {match[1],
          static_cast<unsigned>(std::stoul(match[2])),
          match[3],
          std::stoul(match[4]),
          std::stoul(match[5]),
          match[6],
          std::stoi(match[7]),
          text.substr(messageBegin)};
  return true;
}

std::vector<LogLine> ReadLines(const LogChannel& channel) {
  std::vector<LogLine> lines;
  for (const std::string& text : SplitLines(ReadWholeFile(ChannelFile(channel)))) {
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

std::vector<std::string> TakeMessages(const LogChannel& channel) {
  std::vector<std::string> messages;
  for (auto& line : TakeLines(channel)) messages.push_back(std::move(line.message));
  return messages;
}

}  // namespace qel::test
