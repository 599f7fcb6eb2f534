// Reports of a process whose heap is really damaged. (On the other target the C library ends such a process itself.)
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_text.h"
#include "test/support/bad_pointer.h"

namespace qel::test {
namespace {

constexpr int kExitCode = 7;

// Blocks too large for the heap's pools of small ones, so that they lie one behind the other.
__attribute__((noipa)) char* AllocateBlock() { return static_cast<char*>(std::malloc(20000)); }

// What a host does that writes a few bytes over the end of its block: into the header of the block behind it.
void OverrunBlock() {
  char* block = AllocateBlock();
  char* neighbour = AllocateBlock();
  while (neighbour < block || neighbour - block > 20100) block = std::exchange(neighbour, AllocateBlock());
  for (volatile char* header = neighbour - 8; header != neighbour; ++header) *header = '\xEE';
}

CHILD_ROLE(ReportWithDamagedHeap) {
  LogFolder();
  CapturedFault fault;
  Capture(fault, [] { CallReadThrough(nullptr); });
  OverrunBlock();
  Say(std::to_string(VemoExceptLogOut(L"damaged", "", &fault.record, &fault.context, 1, "source.cpp")));
  Say(std::to_string(VemoModuleStatusLogOut(L"damaged", "")));
  const auto faulting = FAULT_IN(CreateSemaphoreW);
  Say(CreateSemaphoreX(7, "host.cpp", nullptr, 0, 1, nullptr) ? "a handle" : "null");
  return kExitCode;
}

TEST(DamagedHeap, IsReportedAndTheProcessLives) {
  TakeLines(channel::kAssert);
  std::filesystem::remove(ChannelFile(channel::kExceptionReport));
  std::filesystem::remove(ChannelFile(channel::kModuleStatusReport));
  ChildProcess child("ReportWithDamagedHeap");
  EXPECT_EQ(child.WaitForLine(), "-4");
  EXPECT_EQ(child.WaitForLine(), "-4");
  EXPECT_EQ(child.WaitForLine(), "null");
  EXPECT_EQ(child.Wait(), kExitCode);

  const auto messages = TakeMessages(channel::kAssert);
  ASSERT_GT(messages.size(), 3u);
  EXPECT_EQ(messages[0], "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(832), _HeapCheck(), -4");
  EXPECT_EQ(messages[1], "ASSERT : modulestatus.cpp(839)");
  EXPECT_EQ(messages[2], "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(287), _HeapCheck(), -4");
  EXPECT_EQ(messages.back(), "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(895), _HeapCheck(), -4");
  // The fault in the export: its clause, then the heap, then the report.
  const auto clause = std::find_if(messages.begin(), messages.end(),
                                   [](const auto& message) { return message.ends_with(", _CATCH_AE"); });
  ASSERT_GT(messages.end() - clause, 2);
  EXPECT_TRUE(clause[1].ends_with(", _heapchk()")) << clause[1];
  EXPECT_EQ(clause[2], messages[0]);

  const auto reports = TakeExceptionReports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].heading, "damaged()");
  EXPECT_EQ(reports[0].frames.at(0).function, "ReadThrough");
  EXPECT_TRUE(reports[1].heading.ends_with("(Exception CATCH_AE)"));
  const auto status = ReadStatusReports(ReadWholeFile(ChannelFile(channel::kModuleStatusReport)));
  ASSERT_EQ(status.size(), 1u);
  EXPECT_EQ(status[0].heading, "damaged()");
}

}  // namespace
}  // namespace qel::test
