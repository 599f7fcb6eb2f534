// Reports of a process that has used up what a report needs.
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"
#include "test/support/bad_pointer.h"

namespace qel::test {
namespace {

const std::pair<std::string, Resource> kResources[] = {
    {"address_space", Resource::kAddressSpace}, {"memory", Resource::kMemory}, {"files", Resource::kFiles}};

// Has the system give the stack its pages while there is room for them to grow into.
__attribute__((noipa, noinline)) void GrowStack() {
  volatile char room[512 << 10];
  for (size_t i = 0; i < sizeof room; i += 1024) room[sizeof room - 1 - i] = 1;
}

std::FILE* g_ownReport;
Resource g_resource;
HANDLE g_semaphore;

void ReportWithNothingLeft(CapturedFault& fault) {
  TakeAll(g_resource);
  VemoExceptLogOut(L"without", "message", &fault.record, &fault.context, 1, "source.cpp");
  VemoModuleStatusLogOut(L"without", "message");
  ExceptLogOut(g_ownReport, L"without", "message", &fault.record, &fault.context, 1, "source.cpp", GetCurrentProcess(),
               GetCurrentProcessId(), GetCurrentThread());
  g_semaphore = CreateSemaphoreX(1, "host.cpp", nullptr, 0, 1, nullptr);
  GiveBack();
}

// arguments: what is used up, a file for a report of its own.
CHILD_ROLE(FaultWithNothingLeft) {
  LogFolder();
  for (const auto& [name, resource] : kResources) {
    if (name == arguments[0]) g_resource = resource;
  }
  g_ownReport = std::fopen(arguments[1].c_str(), "wb");
  std::fputs("own\n", g_ownReport);  // now it has its buffer
  VemoExceptLogOut(L"before", "", nullptr, nullptr, 1, "source.cpp");
  const auto faulting = FAULT_IN(CreateSemaphoreW);
  const auto symbols = OwnDebugHelpOnly();
  g_semaphore = &g_semaphore;
  GrowStack();
  CapturedFault captured;
  Capture(
      captured, [] { CallReadThrough(nullptr); }, &ReportWithNothingLeft);
  VemoExceptLogOut(L"after", "", nullptr, nullptr, 1, "source.cpp");
  std::fclose(g_ownReport);
  return g_semaphore ? 1 : 0;
}

// The first exception of the process, whose run-time makes much of its own only then.
CHILD_ROLE(FirstFaultWithNothingLeft) {
  LogFolder();
  GrowStack();
  WIN32_FIND_DATAW data;
  DWORD error;
  TakeAll(Resource::kMemory);
  const auto size = GetFileSizeX(static_cast<const wchar_t*>(BadPointer()), &data, &error);
  GiveBack();
  return size == 0 ? 0 : 1;
}

TEST(NothingLeft, TheFirstFaultIsSurvived) {
  SKIP_UNDER_ASAN();
  ChildProcess child("FirstFaultWithNothingLeft", {});
  EXPECT_EQ(child.Wait(), 0);
}

// What a process can still do must end, whatever it loses, and what it had written stays.
TEST(NothingLeft, ReportsReturnAndWriteWhatTheyCan) {
  SKIP_UNDER_ASAN();
  const auto reportFile = ChannelFile(channel::kExceptionReport);
  for (const auto& [name, resource] : kResources) {
    SCOPED_TRACE(name);
    const ScratchFolder folder;
    const fs::path file = folder.Path() / "own.txt";
    fs::remove(reportFile);
    ChildProcess child("FaultWithNothingLeft", {name, file.string()});
    EXPECT_EQ(child.Wait(), 0);

    const std::string own = ReadWholeFile(file);
    size_t at = 0;
    for (const char* part :
         {"own\n", "without(message)", "= File Information =", "ExceptionCode    = 0xc0000005", "FloatSave.Cr0NpxState",
          "= Machine Code Dump =", "\n>", "= Stack Walk =", "##### without()",
          "= OS Version =", "= Virtual Memory Status =", "= System Status (GetSystemInfo) =",
          "= Global Memory Status (GlobalMemoryStatusEx) =", "= Disk Free Space ="}) {
      const size_t found = own.find(part, at);
      ASSERT_NE(found, std::string::npos) << part;
      at = found;
    }
    // What is between the first and the last may have lost its end.
    const auto whole = FindWholeExceptionReports(ReadWholeFile(reportFile));
    ASSERT_GE(whole.size(), 2u);
    EXPECT_EQ(whole.front().heading, "before()");
    EXPECT_EQ(whole.back().heading, "after()");
  }
  fs::remove(reportFile);
  fs::remove(ChannelFile(channel::kModuleStatusReport));
}

}  // namespace
}  // namespace qel::test
