// Reports of a process that has used up its descriptors.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "test/platform/fault/reports.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

bool FaultWithoutDescriptors() {
  TakeAll(Resource::kFiles);
  const bool failed = FaultInExport() && FaultInExport();
  const bool areUsedUp = open("/", O_RDONLY) < 0 && errno == EMFILE;
  GiveBack();
  return failed && areUsedUp;
}

// What the host has opened under the numbers that the layer kept.
bool KeepsDescriptorsOfHost() {
  close_range(STDERR_FILENO + 1, ~0u, 0);
  FaultInExport();  // the layer keeps some again
  close_range(STDERR_FILENO + 1, ~0u, 0);
  int own = 0;
  while (own < 40) own = open("/", O_RDONLY);
  FaultInExport();
  bool areOpen = true;
  for (int number = STDERR_FILENO + 1; number <= own; ++number) areOpen = areOpen && fcntl(number, F_GETFD) == 0;
  return areOpen;
}

CHILD_ROLE(ReportWithoutDescriptors) {
  LogFolder();
  if (arguments[0] == "closed") return KeepsDescriptorsOfHost() ? 42 : 1;
  if (arguments[0] == "forked" && fork() != 0) {
    int status = 0;
    wait(&status);
    return WEXITSTATUS(status);
  }
  return FaultWithoutDescriptors() ? 42 : 1;
}

TEST(UsedUpDescriptors, LeaveLinesAndWholeReports) {
  SKIP_UNDER_ASAN();
  for (const char* how : {"used", "forked", "closed"}) {
    SCOPED_TRACE(how);
    TakeReports();
    TakeMessages(channel::kAssert);
    EXPECT_EQ(ChildProcess("ReportWithoutDescriptors", {how}).Wait(), 42);
    const auto reports = TakeReports();
    EXPECT_EQ(reports.size(), 2u);
    for (const auto& report : reports) {
      EXPECT_TRUE(IsWhole(report));
      EXPECT_NE(report.find(" ) : platform_fault_test"), std::string::npos);  // a module
      EXPECT_NE(report.find("/("), std::string::npos);                        // a disk
    }
    EXPECT_EQ(TakeMessages(channel::kAssert).size(), 4u);  // each names its clause and announces its report
  }
}

}  // namespace
}  // namespace qel::test
