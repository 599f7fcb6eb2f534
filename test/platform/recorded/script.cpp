#include "test/platform/recorded/script.h"

#include <sstream>

#include "test/platform/recorded/call_scope.h"
#include "test/support/worker.h"

namespace qel::test {
namespace {

using Words = std::vector<std::string>;
constexpr char kArrow[] = " -> ";

// Words are parted by blanks; quotes and brackets hold words together.
Words SplitWords(const std::string& text) {
  Words words;
  std::string word;
  bool isQuoted = false, isBracketed = false;
  for (const char character : text + " ") {
    if (character == '"') isQuoted = !isQuoted;
    if (!isQuoted && (character == '[' || character == ']')) isBracketed = character == '[';
    if (character != ' ' || isQuoted || isBracketed) {
      word += character;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, {}));
    }
  }
  return words;
}

// One list of words for each way to choose from the words in brackets.
std::vector<Words> Alternatives(const Words& words) {
  std::vector<Words> result = {{}};
  for (const std::string& word : words) {
    const bool isChoice = word.front() == '[' && word.back() == ']';
    std::vector<Words> longer;
    for (const Words& before : result)
      for (const std::string& choice : isChoice ? SplitWords(word.substr(1, word.size() - 2)) : Words{word}) {
        longer.push_back(before);
        longer.back().push_back(choice);
      }
    result = std::move(longer);
  }
  return result;
}

std::string AskOne(CallScope& scope, const std::string& question) {
  Words words = SplitWords(question);
  if (words.front() == "thread") {
    std::string answer;
    Worker([&]() -> DWORD {
      answer = AskOne(scope, question.substr(7));
      return 0;
    });
    return answer;
  }
  std::string variable;
  if (words.front().ends_with(":")) {
    variable = words.front().substr(0, words.front().size() - 1);
    words.erase(words.begin());
  }
  const auto call = RecordedCalls().find(words.front());
  if (call == RecordedCalls().end()) return "no such call";
  words.front() = variable;
  std::string answers;
  for (const Words& alternative : Alternatives(words))
    answers += (answers.empty() ? "" : ", ") + call->second(scope, alternative);
  return answers;
}

}  // namespace

std::map<std::string, RecordedCall>& RecordedCalls() {
  static std::map<std::string, RecordedCall> calls;
  return calls;
}

std::vector<Section> ReadSections(const std::string& text) {
  std::vector<Section> sections;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("== ")) {
      sections.push_back({line.substr(3), {}});
    } else if (line.starts_with(" ")) {
      sections.back().lines.back() += " " + line.substr(line.find_first_not_of(' '));
    } else if (!line.empty()) {
      sections.back().lines.push_back(line);
    }
  }
  return sections;
}

std::string QuestionOf(const std::string& line) { return line.substr(0, line.find(kArrow)); }

std::vector<std::string> AskAll(const Section& section) {
  CallScope scope;
  std::vector<std::string> result;
  for (size_t i = 0; i < section.lines.size(); ++i) {
    const auto ask = [&] {
      const std::string question = QuestionOf(section.lines[i]);
      result.push_back(question.front() == '#' ? question : question + kArrow + AskOne(scope, question));
    };
    if (section.lines[i] != "thread {") {
      ask();
      continue;
    }
    result.push_back(section.lines[i]);
    Worker([&]() -> DWORD {
      while (section.lines[++i] != "}") ask();
      return 0;
    });
    result.push_back("}");
  }
  return result;
}

}  // namespace qel::test
