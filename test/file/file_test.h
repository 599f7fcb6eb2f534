// What the tests of the file operations share.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/chunked_view.h"
#include "qelibaselib/file/file.h"
#include "test/support/child_process.h"
#include "test/support/fake_clock.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/scratch_folder.h"

// The place that a host passes as its own.
#define HOST 4711, "host.cpp"

namespace qel::test {

using Messages = std::vector<std::string>;

// A pointer as log lines print it, behind its "0x".
inline std::string Hex(const void* pointer) {
  char text[16];
  std::snprintf(text, sizeof text, "%08lX", static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(pointer)));
  return text;
}
// A handle or number as log lines print it, behind its "0x".
inline std::string LowerHex(unsigned long value) {
  char text[16];
  std::snprintf(text, sizeof text, "%lx", value);
  return text;
}
inline std::string LowerHex(HANDLE handle) {
  return LowerHex(static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(handle)));
}

// Every test starts with empty channels and a last error that no call sets.
class FileTest : public testing::Test {
 protected:
  static constexpr DWORD kUntouched = 0xBADC0DE;

  FileTest() {
    for (const LogChannel& channel : {channel::kFileOperation, channel::kFlush, channel::kAssert}) TakeLines(channel);
    SetLastError(kUntouched);
  }

  Messages FileMessages() { return TakeMessages(channel::kFileOperation); }
  Messages Assertions() { return TakeMessages(channel::kAssert); }
  // How many faults the guard has caught; its report may add lines of its own.
  size_t FaultCount() {
    const Messages lines = Assertions();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("ASSERT : ") && line.ends_with(", _CATCH_AE");
    }));
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
