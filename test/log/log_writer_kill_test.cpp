// Writers that are killed at any instruction while others write.
#include <chrono>
#include <map>
#include <random>
#include <set>

#include "test/log/log_case.h"

namespace {

using namespace qel::test;

constexpr int kRounds = 10;  // each with a file of its own, so that none reaches its limit
constexpr int kKillsOfARound = 20;

// Writes numbered lines and acknowledges each, until it is told to end or killed.
CHILD_ROLE(WriteAndAcknowledge) {
  const std::wstring stem = Widen(arguments[0]);
  const std::wstring path = std::filesystem::path(arguments[1]).wstring();
  const int lines = std::stoi(arguments[3]);
  for (int number = 1; number <= lines; ++number) {
    VemoLogOutFile(stem.c_str(), path.c_str(), INFINITE, number, "writer", arguments[2].c_str());
    Say(std::to_string(number));
  }
  Say("done");
  Hear();
  return 0;
}

// What the file may hold beside whole lines is the start of a line of a killed writer.
struct Found {
  std::map<std::string, std::set<int>> numbers;  // by writer
  int cut = 0;
};

Found Read(const std::string& content) {
  Found found;
  for (size_t begin = 0; begin < content.size();) {
    size_t end = content.find("\r\n", begin);
    if (end == std::string::npos) end = content.size();
    const std::string text = content.substr(begin, end - begin);
    LogLine line;
    if (ParseLine(text, line)) {
      EXPECT_TRUE(found.numbers[line.message].insert(line.line).second) << text;
    } else {
      ++found.cut;
      EXPECT_EQ(text.find(", ML=", text.find(", ML=") + 1), std::string::npos) << "glued: " << text;
    }
    begin = end + 2;
  }
  return found;
}

class KilledWriters : public LogCase {
 protected:
  std::unique_ptr<ChildProcess> Start(const std::string& name, int lines) const {
    return std::make_unique<ChildProcess>(
        "WriteAndAcknowledge", Messages{Narrow(stem), folder.Narrow("log.txt"), name, std::to_string(lines)});
  }
};

TEST_F(KilledWriters, NoAcknowledgedLineIsLostOrGlued) {
  std::mt19937 random(20240305);
  // The object lives on between two writers, so that the next one learns of a killed owner.
  const HANDLE open = CreateMutexW(nullptr, FALSE, MutexName(stem).c_str());
  ASSERT_NE(open, nullptr);
  constexpr int kEndless = 1000000;
  constexpr int kSurvivorLines = 200;
  for (int round = 0; round < kRounds; ++round) {
    SetContent("");
    const auto survivor = Start("survivor", kSurvivorLines);
    std::map<std::string, int> acknowledged;
    int killed = 0;
    for (int kill = 0; kill < kKillsOfARound; ++kill) {
      const std::string name = "writer" + std::to_string(kill);
      const auto writer = Start(name, kEndless);
      const int enough = 1 + static_cast<int>(random() % 10);
      for (int& last = acknowledged[name]; last < enough;) last = std::stoi("0" + writer->WaitForLine());
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
      writer->Kill();
      ++killed;
      for (std::string more; !(more = writer->WaitForLine()).empty();) acknowledged[name] = std::stoi(more);
    }
    int survived = 0;
    for (std::string more; (more = survivor->WaitForLine()) != "done"; ++survived) ASSERT_FALSE(more.empty());
    EXPECT_EQ(survived, kSurvivorLines);

    const Found found = Read(Content());
    EXPECT_LE(found.cut, killed);
    EXPECT_EQ(found.numbers.at("survivor").size(), size_t{kSurvivorLines});
    for (const auto& [writer, last] : acknowledged) {
      const std::set<int>& numbers = found.numbers.at(writer);
      EXPECT_GE(*numbers.rbegin(), last) << writer;
      EXPECT_EQ(static_cast<int>(numbers.size()), *numbers.rbegin()) << writer;  // none is missing in between
    }
    const std::string before = Content();
    Write("free", 60000);  // the mutex is to be had
    EXPECT_GT(Content().size(), before.size());
  }
  CloseHandle(open);
}

}  // namespace
