// Every export with each system call of its own failing: no crash, no success that is none, an error where there is no
// success, and nothing left behind that keeps the next call, of another thread, from success.
#pragma once
#include <set>

#include "test/support/own_mounts.h"
#include "test/support/tested_exports.h"
#include "test/systemcalls/failing_system_call.h"

namespace qel::test {

class SystemCalls : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_UNDER_ASAN();
    if (!FailingSystemCall::IsPossible()) GTEST_SKIP() << "the kernel hands no system calls over";
    LogFolder();
    // The files of closed objects, which each child leaves to the next process of the user, end with this program.
    [[maybe_unused]] static const bool isPrivate = UsePrivateSharedMemory();
  }
  // Fails every call in turn, or `most` calls at equal distances, in a process that has made the call before.
  void Drive(const TestedExport& tested, int most = 1000);
  void DriveAll(const std::vector<TestedExport>& exports) {
    for (const TestedExport& each : exports) Drive(each);
  }
  // The same, each time in a process that has made no call yet.
  void DriveFirstUse(const TestedExport& tested);

  std::wstring Wide(const char* name) const { return folder_.Wide(name); }
  fs::path Path(const char* name) const { return folder_.Path() / name; }
  void Write(const char* name, const std::string& bytes) const { WriteWholeFile(Path(name), bytes); }
  static bool Close(HANDLE object) {
    return object != INVALID_HANDLE_VALUE && object != nullptr && CloseHandle(object);
  }

  const ScratchFolder folder_;
  TestedExports exports_{70000};
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
