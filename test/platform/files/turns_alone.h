// A child that wants a file for itself, again and again, beside others that want it too.
#pragma once
#include <vector>

#include "test/platform/files/file_calls.h"
#include "test/support/child_process.h"

namespace qel::test {

enum class Leaving { kKeepsTheFile, kDeletesItNowAndThen };

// Says how often it had the file, or "overlap" when it was not alone with it.
inline int SayTurnsAlone(const std::wstring& wanted, int tries, int turns, Leaving leaving) {
  const std::wstring inside = wanted + L".inside";
  int had = 0;
  for (int i = 0; i < tries && had < turns; ++i) {
    FileHandle alone(wanted, kRW, 0, OPEN_ALWAYS);
    if (!alone.IsOpen()) continue;
    if (Create(inside, kW, 0, CREATE_NEW) != Success(0) || Delete(inside) != Success()) {
      Say("overlap");
      return 1;
    }
    ++had;
    if (leaving == Leaving::kDeletesItNowAndThen && i % 8 == 0) {  // under those who are about to open it
      alone.Close();
      DeleteFileW(wanted.c_str());
    }
  }
  Say(std::to_string(had));
  return 0;
}

// Sends so many children in this role for the file. Returns how many turns they had together.
inline int CountTurnsAlone(const char* role, int children, const std::string& wanted) {
  std::vector<ChildProcess> all;
  for (int i = 0; i < children; ++i) all.emplace_back(role, std::vector{wanted});
  for (auto& child : all) child.Tell("go");
  int had = 0;
  for (auto& child : all) {
    const std::string said = child.WaitForLine();
    EXPECT_NE(said, "overlap");
    had += std::atoi(said.c_str());
  }
  return had;
}

}  // namespace qel::test
