// One log file of a test's own, with a mutex of its own.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "qelibaselib/qelibaselib.h"
#include "test/support/log_folder.h"
#include "test/support/scratch_folder.h"

namespace qel::test {

// Text that starts on one page and would end on the next one, which cannot be read.
template <class Character>
class UnterminatedText {
 public:
  UnterminatedText() {
    constexpr SIZE_T kPage = 4096;
    memory_ = static_cast<char*>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD previous;
    EXPECT_TRUE(VirtualProtect(memory_ + kPage, kPage, PAGE_NOACCESS, &previous));
    text_ = reinterpret_cast<Character*>(memory_ + kPage) - 3;
    text_[0] = text_[1] = text_[2] = Character('x');
  }
  UnterminatedText(const UnterminatedText&) = delete;
  UnterminatedText& operator=(const UnterminatedText&) = delete;
  ~UnterminatedText() { VirtualFree(memory_, 0, MEM_RELEASE); }
  const Character* get() const { return text_; }

 private:
  char* memory_;
  Character* text_;
};

// "Local\<stem>_<user>", as the writers build it.
inline std::wstring MutexName(const std::wstring& stem) {
  wchar_t user[257];
  DWORD size = 257;
  EXPECT_TRUE(GetUserNameW(user, &size));
  return L"Local\\" + stem + L"_" + user;
}

class LogCase : public testing::Test {
 protected:
  LogCase() {
    static std::atomic<int> number;
    stem = L"qel_test_" + std::to_wstring(GetCurrentProcessId()) + L"_" + std::to_wstring(++number);
  }
  void Write(const char* message, DWORD timeoutMs = 60000) {
    VemoLogOutFile(stem.c_str(), path.c_str(), timeoutMs, 17, "source.cpp", message);
  }
  std::string Content() const { return ReadWholeFile(folder.Path() / "log.txt"); }
  void SetContent(const std::string& bytes) { WriteWholeFile(folder.Path() / "log.txt", bytes); }

  ScratchFolder folder;
  std::wstring path = folder.Wide("log.txt");
  std::wstring stem;
};

}  // namespace qel::test
