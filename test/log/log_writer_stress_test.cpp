// Many writers of the same files at once.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <thread>

#include "qelibaselib/qelibaselib.h"
#include "test/support/child_process.h"
#include "test/support/log_folder.h"
#include "test/support/scratch_folder.h"

namespace {

using namespace qel::test;

constexpr int kProcesses = 8;
constexpr int kThreads = 4;
constexpr int kLines = 500;  // of each thread, spread over the files so that none reaches its limit
constexpr int kFiles = 4;

std::string FileName(int file) { return "stress_" + std::to_string(file) + ".txt"; }

CHILD_ROLE(WriteLines) {
  const std::filesystem::path folder = arguments[0];
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread] {
      const std::string source = std::to_string(GetCurrentThreadId());  // to be compared with the line's own field
      for (int i = 0; i < kLines; ++i)
        VemoLogOutFile(L"qel_test_log_stress", (folder / FileName(i % kFiles)).wstring().c_str(), INFINITE, i,
                       source.c_str(), (arguments[1] + "." + std::to_string(thread)).c_str());
    });
  for (std::thread& thread : threads) thread.join();
  return 0;
}

TEST(LogWriterStress, EveryLineOfEveryWriterIsWhole) {
  const ScratchFolder folder;
  std::vector<std::unique_ptr<ChildProcess>> children;
  std::vector<unsigned long> ids;
  for (int process = 0; process < kProcesses; ++process)
    children.push_back(std::make_unique<ChildProcess>(
        "WriteLines", std::vector<std::string>{folder.Path().string(), std::to_string(process)}));
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);

  // writer -> the numbers of its lines, in their order in each file
  std::map<std::string, std::set<int>> numbers;
  std::map<std::string, std::set<unsigned long>> processIds;
  for (int file = 0; file < kFiles; ++file) {
    const std::string content = ReadWholeFile(folder.Path() / FileName(file));
    EXPECT_LT(content.size(), 1048576u);
    std::map<std::string, int> last;
    for (size_t begin = 0; begin < content.size();) {
      const size_t end = content.find("\r\n", begin);
      ASSERT_NE(end, std::string::npos) << content.substr(begin);
      LogLine line;
      ASSERT_TRUE(ParseLine(content.substr(begin, end - begin), line)) << content.substr(begin, end - begin);
      begin = end + 2;
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
