// One log file of a test's own, with a mutex of its own.
#pragma once
#include "test/support/library.h"

namespace qel::test {

// "Local\<stem>_<user>", as the writers build it.
inline std::wstring MutexName(const std::wstring& stem) {
  wchar_t user[257];
  DWORD size = 257;
  EXPECT_TRUE(GetUserNameW(user, &size));
  return L"Local\\" + stem + L"_" + user;
}

class LogCase : public testing::Test {
 protected:
  void Write(const char* message, DWORD timeoutMs = 60000) {
    VemoLogOutFile(stem.c_str(), path.c_str(), timeoutMs, 17, "source.cpp", message);
  }
  std::string Content() const { return ReadWholeFile(folder.Path() / "log.txt"); }
  void SetContent(const std::string& bytes) { WriteWholeFile(folder.Path() / "log.txt", bytes); }

  ScratchFolder folder;
  std::wstring path = folder.Wide("log.txt");
  std::wstring stem = UniqueName();
};

}  // namespace qel::test
