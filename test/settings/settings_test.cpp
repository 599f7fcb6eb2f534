#include <set>

#include "test/support/library.h"

namespace {

using namespace qel::test;

struct Folder {
  int (*set)(const wchar_t*);
  const wchar_t* (*get)();
};
constexpr Folder kFolders[] = {{&VemoSetLogPath, &VemoGetLogPath},
                               {&VemoSetTmpPath, &VemoGetTmpPath},
                               {&VemoSetDataPath, &VemoGetDataPath},
                               {&VemoSetBasePath, &VemoGetBasePath},
                               {&VemoSetExePath, &VemoGetExePath}};

// Folders can be set only once in a process, so they are set in one of their own.
CHILD_ROLE(SetFolders) {
  for (const Folder& folder : kFolders) Say(Narrow(folder.get()));
  int returned = 0;
  for (size_t i = 0; i < std::size(kFolders); ++i) {
    const std::wstring path = L"x" + std::wstring(i == 4 ? 299 : i, L'y');
    if (i == 1) kFolders[i].set(reinterpret_cast<const wchar_t*>(16));  // does not use up the chance
    returned += kFolders[i].set(path.c_str()) != 0;
    returned += kFolders[i].set(L"later") != 0;
  }
  for (const Folder& folder : kFolders) Say(Narrow(folder.get()));
  Say(std::to_string(returned));
  return 0;
}

TEST(Settings, FoldersAreSetOnceAndCut) {
  ChildProcess child("SetFolders");
  for (size_t i = 0; i < std::size(kFolders); ++i) EXPECT_EQ(child.WaitForLine(), "?:\\???");
  for (const char* path : {"x", "xy", "xyy", "xyyy"}) EXPECT_EQ(child.WaitForLine(), path);
  EXPECT_EQ(child.WaitForLine(), "x" + std::string(258, 'y'));
  EXPECT_EQ(child.WaitForLine(), "10");
}

CHILD_ROLE(RaceForFolder) {
  std::vector<std::wstring> paths;
  for (wchar_t letter = L'a'; letter < L'i'; ++letter) paths.emplace_back(250, letter);
  OnThreads(8, [&](int i) { VemoSetDataPath(paths[static_cast<size_t>(i)].c_str()); });
  return std::set<std::wstring>(paths.begin(), paths.end()).contains(VemoGetDataPath()) ? 0 : 1;
}

TEST(Settings, ALaterFolderIsNotEvenRead) {
  TakeLines(qel::channel::kAssert);
  const std::wstring folder = VemoGetLogPath();
  EXPECT_NE(VemoSetLogPath(nullptr), 0);
  EXPECT_NE(VemoSetLogPath(reinterpret_cast<const wchar_t*>(16)), 0);
  EXPECT_EQ(VemoGetLogPath(), folder);
  EXPECT_TRUE(TakeLines(qel::channel::kAssert).empty());
}

TEST(Settings, OneOfSeveralThreadsSetsAFolder) {
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ChildProcess("RaceForFolder").Wait(), 0);
}

TEST(Settings, DebugModeSetsAndClearsBits) {
  VemoResetDebugMode(0xFFFFFFFF);
  EXPECT_EQ(VemoGetDebugMode(), 0u);
  EXPECT_EQ(VemoSetDebugMode(0x80000005), 0x80000005u);
  EXPECT_EQ(VemoSetDebugMode(2), 2u);
  EXPECT_EQ(VemoGetDebugMode(), 0x80000007u);
  EXPECT_EQ(VemoResetDebugMode(5), 0xFFFFFFFAu);
  EXPECT_EQ(VemoGetDebugMode(), 0x80000002u);
  VemoResetDebugMode(0xFFFFFFFF);
}

TEST(Settings, NoCacheFlushLimit) {
  DWORD second = 0;
  EXPECT_EQ(VemoGetNoCacheFlushLimit(&second), 33554432u);
  EXPECT_EQ(second, 50u);
  EXPECT_EQ(VemoSetNoCacheFlushLimit(0xFFFFFFFF, 7), 0xFFFFFFFFu);
  EXPECT_EQ(VemoGetNoCacheFlushLimit(&second), 0xFFFFFFFFu);
  EXPECT_EQ(second, 7u);
  EXPECT_EQ(VemoGetNoCacheFlushLimit(reinterpret_cast<DWORD*>(16)), 0xFFFFFFFFu);  // a fault that stays inside
  VemoSetNoCacheFlushLimit(33554432, 50);
}

TEST(MemoryStatus, FillsTheStatusWithoutAWalk) {
  auto query = ANSWER_CALL(VirtualQuery, SIZE_T{0});
  MEMORYSTATUSEX status;
  memset(&status, 0xAA, sizeof(status));
  double seconds = -1;
  VemoGetMemoryStatus(nullptr, nullptr, &status, &seconds);
  EXPECT_EQ(query.Calls(), 0);
  EXPECT_EQ(status.dwLength, 64u);
  EXPECT_LE(status.dwMemoryLoad, 100u);
  EXPECT_GE(status.ullTotalPhys, status.ullAvailPhys);
  EXPECT_GT(status.ullTotalPhys, 0u);
  EXPECT_GE(seconds, 0.0);
  EXPECT_LT(seconds, 60.0);
  VemoGetMemoryStatus(nullptr, nullptr, nullptr, nullptr);
}

TEST(MemoryStatus, WalksBelowTwoGigabytes) {
  std::vector<std::pair<SIZE_T, DWORD>> regions = {
      {0x10000, MEM_FREE}, {0x200000, MEM_COMMIT}, {0x30000, MEM_FREE}, {0x400000, MEM_RESERVE}, {0x20000, MEM_FREE}};
  std::vector<DWORD> asked;
  auto query = STAND_IN(VirtualQuery, [&](int nth, LPCVOID address, PMEMORY_BASIC_INFORMATION region, SIZE_T length) {
    asked.push_back(reinterpret_cast<ULONG_PTR>(address));
    if (static_cast<size_t>(nth) > regions.size()) return SIZE_T{0};
    *region = {};
    std::tie(region->RegionSize, region->State) = regions[static_cast<size_t>(nth) - 1];
    return length;
  });
  DWORD largest = 1;
  DWORD sum = 1;
  VemoGetMemoryStatus(&largest, &sum, nullptr, nullptr);
  EXPECT_EQ(largest, 0x30000u);
  EXPECT_EQ(sum, 0x60000u);
  EXPECT_EQ(asked, (std::vector<DWORD>{0, 0x10000, 0x210000, 0x240000, 0x640000, 0x660000}));
  regions.clear();
  VemoGetMemoryStatus(nullptr, &sum, nullptr, nullptr);
  EXPECT_EQ(sum, 0u);
}

TEST(MemoryStatus, WalkEndsAtTwoGigabytes) {
  auto query = STAND_IN(VirtualQuery, [](int, LPCVOID, PMEMORY_BASIC_INFORMATION region, SIZE_T length) {
    *region = {};
    region->RegionSize = 0x40000000;
    region->State = MEM_FREE;
    return length;
  });
  DWORD largest = 0;
  VemoGetMemoryStatus(&largest, nullptr, nullptr, nullptr);
  EXPECT_EQ(query.Calls(), 2);
  EXPECT_EQ(largest, 0x40000000u);
}

}  // namespace
