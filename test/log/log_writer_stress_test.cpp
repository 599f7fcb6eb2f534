// Many writers of the same files at once.
#include <map>
#include <set>

#include "test/support/library.h"

namespace {

using namespace qel::test;

constexpr int kProcesses = 8;
constexpr int kThreads = 4;
constexpr int kLines = 500;  // of each thread, spread over the files so that none reaches its limit
constexpr int kFiles = 4;

std::string FileName(int file) { return "stress_" + std::to_string(file) + ".txt"; }

CHILD_ROLE(WriteLines) {
  const std::filesystem::path folder = arguments[0];
  OnThreads(kThreads, [&](int thread) {
    const std::string source = std::to_string(GetCurrentThreadId());  // to be compared with the line's own field
    for (int i = 0; i < kLines; ++i)
      VemoLogOutFile(L"qel_test_log_stress", (folder / FileName(i % kFiles)).wstring().c_str(), INFINITE, i,
                     source.c_str(), (arguments[1] + "." + std::to_string(thread)).c_str());
  });
  return 0;
}

TEST(LogWriterStress, EveryLineOfEveryWriterIsWhole) {
  const ScratchFolder folder;
  std::vector<ChildProcess> children;
  for (int process = 0; process < kProcesses; ++process)
    children.emplace_back("WriteLines", Messages{folder.Path().string(), std::to_string(process)});
  for (auto& child : children) EXPECT_EQ(child.Wait(), 0);

  // writer -> the numbers of its lines, in their order in each file
  std::map<std::string, std::set<int>> numbers;
  std::map<std::string, std::set<unsigned long>> processIds;
  for (int file = 0; file < kFiles; ++file) {
    std::map<std::string, int> last;
    for (const LogLine& line : ReadLines(folder.Path() / FileName(file))) {
      EXPECT_EQ(line.sourceFile, std::to_string(line.threadId));
      EXPECT_EQ(line.line % kFiles, file);
      EXPECT_TRUE(numbers[line.message].insert(line.line).second);
      const auto [previous, isFirst] = last.try_emplace(line.message, line.line);
      EXPECT_TRUE(isFirst || previous->second < line.line);
      previous->second = line.line;
      processIds[line.message.substr(0, line.message.find('.'))].insert(line.processId);
    }
  }
  EXPECT_EQ(numbers.size(), size_t{kProcesses} * kThreads);
  for (const auto& [writer, lines] : numbers) EXPECT_EQ(lines.size(), size_t{kLines}) << writer;
  for (const auto& [process, seen] : processIds) EXPECT_EQ(seen.size(), 1u) << process;
}

}  // namespace
