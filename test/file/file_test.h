// What the tests of the file operations share.
#pragma once
#include "qelibaselib/file/chunked_view.h"
#include "test/support/library.h"

namespace qel::test {

// Every test starts with empty channels and a last error that no call sets.
class FileTest : public testing::Test {
 protected:
  static constexpr DWORD kUntouched = 0xBADC0DE;

  FileTest() {
    for (const LogChannel& channel : {channel::kFileOperation, channel::kFlush, channel::kAssert}) TakeLines(channel);
    SetLastError(kUntouched);
  }

  std::filesystem::path Path(const std::string& name = {}) const {
    return name.empty() ? folder_.Path() : folder_.Path() / name;
  }
  std::wstring Wide(const std::string& name = {}) const { return folder_.Wide(name); }
  std::string Text(const std::string& name = {}) const { return folder_.Narrow(name); }  // the path in a log line
  void Write(const std::string& name, const std::string& bytes) const { WriteWholeFile(Path(name), bytes); }
  std::string Read(const std::string& name) const { return ReadWholeFile(Path(name)); }
  bool Exists(const std::string& name) const { return std::filesystem::exists(Path(name)); }

  Messages FileMessages() { return TakeMessages(channel::kFileOperation); }
  Messages Assertions() { return TakeMessages(channel::kAssert); }
  // How many faults the guard has caught; its report may add lines of its own.
  size_t FaultCount() {
    const Messages lines = Assertions();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("ASSERT : ") && line.ends_with(", _CATCH_AE");
    }));
  }

  // A call that fails, the error that it leaves, and its line without "lastErr=...", if it writes one.
  struct FailedCall {
    std::function<bool()> succeeds;
    DWORD error;
    std::string line;
  };
  void ExpectFailures(const std::vector<FailedCall>& calls) {
    for (const auto& [succeeds, error, line] : calls) {
      SetLastError(kUntouched);
      EXPECT_FALSE(succeeds()) << line;
      EXPECT_EQ(GetLastError(), error) << line;
      const std::string whole = "host.cpp(4711): lastErr=" + std::to_string(error) + ", " + line;
      EXPECT_EQ(TakePlacedMessages(channel::kFileOperation), line.empty() ? Messages{} : Messages{whole});
    }
  }

  ScratchFolder folder_;
};

// The plain ways to a file, for what a test needs beside the call under test.
inline HANDLE OpenPlain(const std::wstring& path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING,
                        DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  return CreateFileW(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

// A second process that holds a file without sharing it until it is told to let go, or killed.
class FileHolder {
 public:
  explicit FileHolder(const std::string& path) : child_("HoldFile", {path}) { EXPECT_EQ(child_.WaitForLine(), "held"); }
  void LetGo() {
    child_.Tell("let go");
    EXPECT_EQ(child_.WaitForLine(), "free");
  }

 private:
  ChildProcess child_;
};

}  // namespace qel::test
