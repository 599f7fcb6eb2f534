// What the two report files have in common.
#include "test/modulestatus/report_text.h"

namespace qel::test {
namespace {

const struct ReportFile {
  LogChannel channel;
  void (*write)();
  int mutexes;           // of other files, which come before
  Messages before;       // the line that such a file takes
  int noMutex, noOwner;  // the lines of the assertions
} kFiles[] = {
    {channel::kExceptionReport,
     [] { EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK); },
     1,
     {"ASSERT : modulestatus.cpp(839)"},
     845,
     849},
    {channel::kModuleStatusReport, [] { EXPECT_EQ(VemoModuleStatusLogOut(L"title", ""), _HEAPOK); }, 0, {}, 775, 779}};

class ReportFiles : public ReportTest {
 protected:
  // The assertions of a report that is given up.
  Messages Write(const ReportFile& file) {
    TakeLines(channel::kAssert);
    file.write();
    EXPECT_FALSE(fs::exists(ChannelFile(file.channel)));
    return TakeMessages(channel::kAssert);
  }
  static Messages With(Messages messages, int line) {
    messages.push_back("ASSERT : modulestatus.cpp(" + std::to_string(line) + ")");
    return messages;
  }
};

TEST_F(ReportFiles, AreLeftAloneWithoutTheirMutex) {
  for (const ReportFile& file : kFiles) {
    const auto create = FAIL_CALL(CreateMutexW, file.mutexes + 1, ERROR_ACCESS_DENIED, nullptr);
    EXPECT_EQ(Write(file), With(file.before, file.noMutex));
  }
  for (const ReportFile& file : kFiles) {
    const auto wait = STAND_IN(WaitForSingleObject, [&](int nth, HANDLE object, DWORD timeoutMs) -> DWORD {
      EXPECT_EQ(timeoutMs, 60000u);
      return nth == file.mutexes + 1 ? WAIT_TIMEOUT : WaitForSingleObject(object, timeoutMs);
    });
    EXPECT_EQ(Write(file), With(file.before, file.noOwner));
  }
}

std::FILE* OpenNothing(const wchar_t*, const wchar_t*) { return nullptr; }

TEST_F(ReportFiles, ThatCannotBeOpenedCostTheReport) {
  for (const ReportFile& file : kFiles) {
    {
      const ReplaceCall open("_wfopen", &OpenNothing);
      EXPECT_EQ(Write(file), Messages{}) << "nor is the line that goes before it";
    }
    file.write();
    EXPECT_NE(ReadWholeFile(ChannelFile(file.channel)), "") << "the mutex was not given back";
    fs::remove(ChannelFile(file.channel));
  }
}

}  // namespace
}  // namespace qel::test
