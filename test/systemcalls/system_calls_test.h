// Every export with each system call of its own failing: no crash, no success that is none, an error where there is no
// success, and nothing left behind that keeps the next call, of another thread, from success.
#pragma once
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/qelibaselib.h"
#include "test/support/fake_clock.h"
#include "test/support/log_folder.h"
#include "test/support/sanitizer.h"
#include "test/support/scratch_folder.h"
#include "test/systemcalls/failing_system_call.h"

#define HOST 4711, "host.cpp"

namespace qel::test {
namespace fs = std::filesystem;

enum class Tells { kError, kNothing };  // whether the last error tells of a failure

struct TestedExport {
  const char* name;
  std::function<void()> prepare;  // makes things as they are before the call
  std::function<bool()> call;     // whether it reports success
  std::function<bool()> holds;    // whether what a success promises is there
  Tells tells = Tells::kError;
  std::function<bool()> wrote = [] { return true; };  // for a call that says nothing: whether it has done anything
};

class SystemCalls : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_UNDER_ASAN();
    if (!FailingSystemCall::IsPossible()) GTEST_SKIP() << "the kernel hands no system calls over";
    LogFolder();
  }
  // Fails every call in turn, or `most` calls at equal distances, in a process that has made the call before.
  void Drive(const TestedExport& tested, int most = 1000);
  // The same, each time in a process that has made no call yet.
  void DriveFirstUse(const TestedExport& tested);

  std::wstring Wide(const char* name) const { return folder_.Wide(name); }
  fs::path Path(const char* name) const { return folder_.Path() / name; }
  bool Holds(const char* name, const std::string& bytes) const { return ReadWholeFile(Path(name)) == bytes; }
  void Write(const char* name, const std::string& bytes) const { WriteWholeFile(Path(name), bytes); }
  bool OpenFile(const char* name) {
    file_ =
        ScopedFile(CreateFileW(Wide(name).c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_ALWAYS, 0, nullptr));
    return static_cast<bool>(file_);
  }
  static bool Close(HANDLE object) {
    return object != INVALID_HANDLE_VALUE && object != nullptr && CloseHandle(object);
  }

  const ScratchFolder folder_;
  ScopedFile file_;  // for the exports that take one
  FakeClock clock_;

 private:
  struct Report;
  struct Resources {
    std::multiset<std::string> descriptors;  // without those of shared memory
    int shared;
    DWORD handles;
  };

  void RunInChild(Report& report, const std::function<void()>& body);
  void NoteCalls(const TestedExport& tested, Report& report);
  void FailEach(const TestedExport& tested, Report& report, int most,
                const std::function<void(SystemCallFailure)>& run);
  void FailAndRepeat(const TestedExport& tested, SystemCallFailure failure, Resources& before, Report& report);
  std::string Check(const TestedExport& tested, bool succeeded, DWORD error);
  std::string Repeat(const TestedExport& tested);
  Resources CountResources();
  std::string FindLeftovers(Resources& before);
};

}  // namespace qel::test
