#include "qellog/record/log_line.h"

#include <charconv>

namespace qellog {
namespace {

constexpr std::string_view kComma = ", ";
constexpr std::string_view kMemoryLoad = "ML=";

/// Reads a text from its start to its end; every function leaves the rest of the text behind what it took.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : rest_(text) {}
  std::string_view Rest() const { return rest_; }

  bool Skip(std::string_view expected) {
    if (!rest_.starts_with(expected)) return false;
    rest_.remove_prefix(expected.size());
    return true;
  }
  template <class Number>
  bool Read(Number& value) {
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    return true;
  }

 private:
  std::string_view rest_;
};

/// The source file may hold blanks and parentheses: it ends at the first number in parentheses with a colon behind.
bool ReadSource(std::string_view text, LogLine& line) {
  for (std::size_t open = text.find('('); open != text.npos; open = text.find('(', open + 1)) {
    Cursor cursor(text.substr(open + 1));
    if (!cursor.Read(line.sourceLine) || !cursor.Skip("):")) continue;
    line.sourceFile = text.substr(0, open);
    line.message = cursor.Rest();
    return true;
  }
  return false;
}

/// The program's path may hold commas: it ends where two numbers follow, and a source position behind them.
bool ReadProgramAndRest(std::string_view text, LogLine& line) {
  const std::string_view firstLine = text.substr(0, text.find('\n'));
  for (std::size_t comma = firstLine.find(kComma); comma != text.npos; comma = firstLine.find(kComma, comma + 1)) {
    Cursor cursor(text.substr(comma));
    if (!cursor.Skip(kComma) || !cursor.Read(line.processId) || !cursor.Skip(kComma) || !cursor.Read(line.threadId) ||
        !cursor.Skip(kComma)) {
      continue;
    }
    line.program = text.substr(0, comma);
    return ReadSource(cursor.Rest(), line);
  }
  return false;
}

bool ReadMemoryLoad(Cursor& cursor, LogLine& line) {
  if (!cursor.Skip(kMemoryLoad)) return true;
  std::uint32_t load = 0;
  if (!cursor.Read(load) || !cursor.Skip(kComma)) return false;
  line.memoryLoad = load;
  return true;
}

}  // namespace

std::optional<LogLine> ParseLine(std::string_view text) {
  const auto time = ParseTime(text, TimeLayout::kWithComma);
  if (!time) return std::nullopt;
  LogLine line;
  line.time = *time;
  Cursor cursor(text.substr(TimeLength(TimeLayout::kWithComma)));
  if (!cursor.Skip(kComma) || !ReadMemoryLoad(cursor, line)) return std::nullopt;
  if (!ReadProgramAndRest(cursor.Rest(), line)) return std::nullopt;
  return line;
}

std::optional<std::size_t> FindSecondLine(std::string_view text) {
  constexpr std::size_t kMonthSlash = 4;
  for (std::size_t slash = text.find('/', kMonthSlash + 1); slash != text.npos; slash = text.find('/', slash + 1)) {
    const std::size_t begin = slash - kMonthSlash;
    if (LooksLikeTime(text.substr(begin), TimeLayout::kWithComma) && ParseLine(text.substr(begin))) return begin;
  }
  return std::nullopt;
}

std::string MessageOf(const LogLine& line) {
  std::string message;
  message.reserve(line.message.size());
  for (std::size_t i = 0; i < line.message.size(); ++i) {
    const bool beforeLineFeed = i + 1 < line.message.size() && line.message[i + 1] == '\n';
    if (line.message[i] != '\r' || !beforeLineFeed) message += line.message[i];
  }
  return message;
}

}  // namespace qellog
