// What only this target can provoke: a disk that takes a part of a line.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <fstream>

#include "test/log/log_case.h"

namespace {

using namespace qel::test;

// The limit of a file's size is met as a full disk is: the write takes what fits and fails with the rest.
void LimitFiles(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limits{bytes, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limits);
}

void WriteTo(const std::string& path, const char* message) {
  VemoLogOutFile(L"qel_test_full", Widen(path).c_str(), 60000, 1, "s", message);
}

CHILD_ROLE(WriteOnFullDisk) {
  WriteTo(arguments[0], "first");
  const rlim_t size = std::filesystem::file_size(arguments[0]);
  for (const rlim_t fits : {0, 1, 20, static_cast<int>(size) - 1}) {
    LimitFiles(size + fits);
    WriteTo(arguments[0], "lost!");
  }
  LimitFiles(RLIM_INFINITY);
  WriteTo(arguments[0], "second");
  return 0;
}

// What was in the file stays, whether it ends in a line end or not.
CHILD_ROLE(WriteBehindForeignText) {
  const rlim_t size = std::filesystem::file_size(arguments[0]);
  for (const rlim_t fits : {0, 1, 2, 60}) {
    LimitFiles(size + fits);
    WriteTo(arguments[0], "two\nlines");
    if (std::filesystem::file_size(arguments[0]) != size) return 1;
  }
  return 0;
}

TEST_F(LogCase, FullDiskTakesNothingOfOthersAway) {
  for (const char* content : {"foreign text without an end", "\n\n2", "line\r\nrest", "2"}) {
    SetContent(content);
    EXPECT_EQ(ChildProcess("WriteBehindForeignText", {folder.Narrow("log.txt")}).Wait(), 0) << content;
    EXPECT_EQ(Content(), content);
  }
}

// Another program that does not know the mutex writes before ours fails: its text stays too.
CHILD_ROLE(WriteWhileAnotherWrites) {
  auto find = STAND_IN(FindFirstFileW, [&](int, LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
    const HANDLE search = FindFirstFileW(pattern, data);
    std::ofstream(arguments[0], std::ios::app) << "foreign";
    LimitFiles(std::filesystem::file_size(arguments[0]) + 3);
    return search;
  });
  WriteTo(arguments[0], "lost");
  return 0;
}

// A reader or writer that opens a pipe waits for the other side; the log writer never opens one.
TEST_F(LogCase, PipeUnderTheFilesNameCostsTheLine) {
  ASSERT_EQ(mkfifo(folder.Narrow("log.txt").c_str(), 0600), 0);
  Write("lost");
  SYSTEMTIME now;
  GetLocalTime(&now);
  const std::string day = "day_" + std::to_string(now.wDay / 10) + std::to_string(now.wDay % 10) + ".txt";
  ASSERT_EQ(mkfifo(folder.Narrow(day).c_str(), 0600), 0);
  VemoLogOutFileDayHis(stem.c_str(), folder.Wide().c_str(), L"day", L"txt", 60000, 1, "source", "lost");
  std::filesystem::remove(folder.Path() / "log.txt");
  Write("written", 0);
  EXPECT_NE(Content(), "");
}

TEST_F(LogCase, FullDiskLeavesTextThatCameMeanwhile) {
  SetContent("first\r\n");
  EXPECT_EQ(ChildProcess("WriteWhileAnotherWrites", {folder.Narrow("log.txt")}).Wait(), 0);
  EXPECT_TRUE(Content().starts_with("first\r\nforeign")) << Content();
}

TEST_F(LogCase, FullDiskLeavesNoPartOfALine) {
  EXPECT_EQ(ChildProcess("WriteOnFullDisk", {folder.Narrow("log.txt")}).Wait(), 0);
  const auto lines = ReadLines(folder.Path() / "log.txt");
  ASSERT_EQ(lines.size(), 2u) << Content();
  EXPECT_EQ(lines[0].message, "first");
  EXPECT_EQ(lines[1].message, "second");
  EXPECT_TRUE(Content().ends_with(":second\r\n"));
}

}  // namespace
