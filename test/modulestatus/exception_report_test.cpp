#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "qelibaselib/platform/mfc/exception.h"
#include "qelibaselib/qelibaselib.h"
#include "test/modulestatus/report_reader.h"
#include "test/support/child_process.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

// A record and a context in which every member has a value of its own.
struct MadeFault {
  EXCEPTION_RECORD record{};
  CONTEXT context{};

  MadeFault() {
    record.ExceptionCode = 0xC0000005;
    record.ExceptionFlags = 1;
    record.ExceptionRecord = reinterpret_cast<EXCEPTION_RECORD*>(0xABCDEF01);
    record.ExceptionAddress = reinterpret_cast<void*>(0x00CDEF02);
    record.NumberParameters = 2;
    for (DWORD i = 0; i < 15; ++i) record.ExceptionInformation[i] = 0xA0 + i;
    auto* bytes = reinterpret_cast<unsigned char*>(&context);
    for (size_t i = 0; i < sizeof context; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 256);
    context.Eip = context.Esp = context.Ebp = 0;  // nothing there that can be read
  }

  // Without the symbols, which take the debug help of Windows a second.
  ExceptionReport Report(const wchar_t* title = L"title", const char* message = "message",
                         const char* sourceFile = "source.cpp") const {
    const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE);
    ReportReader reader(WrittenBy([&](std::FILE* stream) {
      EXPECT_EQ(ExceptLogOut(stream, title, message, &record, &context, 17, sourceFile, GetCurrentProcess(), 4711,
                             GetCurrentThread()),
                _HEAPOK);
    }));
    auto report = ReadExceptionReport(reader);
    EXPECT_TRUE(reader.AtEnd());
    return report;
  }
};

std::string ReportFileText() { return ReadWholeFile(ChannelFile(channel::kExceptionReport)); }

void RemoveReportFile() {
  LogFolder();
  fs::remove(ChannelFile(channel::kExceptionReport));
}

TEST(ExceptionReport, PrintsTheRecord) {
  const MadeFault fault;
  const auto report = fault.Report();
  EXPECT_TRUE(report.hasRecord);
  EXPECT_EQ(report.record.at("ExceptionCode"), 0xC0000005u);
  EXPECT_EQ(report.record.at("ExceptionFlags"), 1u);
  EXPECT_EQ(report.record.at("ExceptionRecord"), 0xABCDEF01u);
  EXPECT_EQ(report.record.at("ExceptionAddress"), 0x00CDEF02u);
  EXPECT_EQ(report.record.at("NumberParameters"), 2u);
  EXPECT_EQ(report.parameters, (std::vector<unsigned long>{0xA0, 0xA1}));
}

TEST(ExceptionReport, PrintsAtMostFifteenParameters) {
  MadeFault fault;
  for (const auto& [stated, printed] : {std::pair<DWORD, size_t>{0, 0}, {15, 15}, {20, 15}, {0xFFFFFFFF, 15}}) {
    fault.record.NumberParameters = stated;
    const auto report = fault.Report();
    EXPECT_EQ(report.record.at("NumberParameters"), stated);
    EXPECT_EQ(report.parameters.size(), printed);
  }
}

TEST(ExceptionReport, PrintsEveryRegister) {
  const MadeFault fault;
  const auto report = fault.Report();
  const CONTEXT& context = fault.context;
  const std::pair<const char*, DWORD> expected[] = {
      {"Eax", context.Eax},
      {"Ebx", context.Ebx},
      {"Ecx", context.Ecx},
      {"Edx", context.Edx},
      {"Esi", context.Esi},
      {"Edi", context.Edi},
      {"Eip", context.Eip},
      {"Esp", context.Esp},
      {"Ebp", context.Ebp},
      {"SegCs", context.SegCs},
      {"SegDs", context.SegDs},
      {"SegEs", context.SegEs},
      {"SegSs", context.SegSs},
      {"SegFs", context.SegFs},
      {"SegGs", context.SegGs},
      {"EFlags", context.EFlags},
      {"Dr0", context.Dr0},
      {"Dr1", context.Dr1},
      {"Dr2", context.Dr2},
      {"Dr3", context.Dr3},
      {"Dr6", context.Dr6},
      {"Dr7", context.Dr7},
      {"ContextFlags", context.ContextFlags},
      {"ControlWord", context.FloatSave.ControlWord},
      {"StatusWord", context.FloatSave.StatusWord},
      {"TagWord", context.FloatSave.TagWord},
      {"ErrorOffset", context.FloatSave.ErrorOffset},
      {"ErrorSelector", context.FloatSave.ErrorSelector},
      {"DataOffset", context.FloatSave.DataOffset},
      {"DataSelector", context.FloatSave.DataSelector},
  };
  for (const auto& [name, value] : expected) EXPECT_EQ(report.registers.at(name), value) << name;
  // The last word of the save area has different names in the systems' headers, but one place.
  DWORD last;
  std::memcpy(&last, context.FloatSave.RegisterArea + 80, sizeof last);
  EXPECT_EQ(report.registers.at("Cr0NpxState"), last);
  EXPECT_TRUE(std::equal(report.floatArea.begin(), report.floatArea.end(), context.FloatSave.RegisterArea));
  EXPECT_EQ(report.floatArea.size(), 80u);
  EXPECT_TRUE(std::equal(report.extendedArea.begin(), report.extendedArea.end(), context.ExtendedRegisters));
  EXPECT_EQ(report.extendedArea.size(), 512u);
}

TEST(ExceptionReport, SaysWhatIsMissing) {
  ReportReader reader(WrittenBy([](std::FILE* stream) {
    EXPECT_EQ(ExceptLogOut(stream, nullptr, nullptr, nullptr, nullptr, -3, nullptr, GetCurrentProcess(), 0,
                           GetCurrentThread()),
              _HEAPOK);
  }));
  const auto report = ReadExceptionReport(reader);
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_FALSE(report.hasRecord);
  EXPECT_FALSE(report.hasContext);
  EXPECT_EQ(report.title, "()");
  EXPECT_EQ(report.source, "(-3)");
  EXPECT_EQ(report.status.title, "()");
}

TEST(ExceptionReport, NamesTheProcessAndCounts) {
  const MadeFault fault;
  const auto first = fault.Report(L"Überschrift", "100 %s %n", "folder/source.cpp");
  EXPECT_EQ(first.processId, GetCurrentProcessId());
  EXPECT_EQ(first.threadId, GetCurrentThreadId());
  EXPECT_EQ(first.source, "folder/source.cpp(17)");
  char title[64] = "";
  WideCharToMultiByte(CP_ACP, 0, L"Überschrift", -1, title, sizeof title, nullptr, nullptr);
  EXPECT_EQ(first.title, std::string(title) + "(100 %s %n)");
  EXPECT_EQ(first.status.title, std::string(title) + "()");
  EXPECT_EQ(first.status.processId, GetCurrentProcessId());
  EXPECT_EQ(fault.Report().count, first.count + 1);
}

TEST(ExceptionReport, AppendsToItsFile) {
  RemoveReportFile();
  TakeLines(channel::kAssert);
  const MadeFault fault;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(VemoExceptLogOut(L"title", nullptr, &fault.record, &fault.context, 5, "c:\\folder\\source.cpp"), _HEAPOK);
  }
  const std::string text = ReportFileText();
  EXPECT_TRUE(text.starts_with("\r\n>>>"));
  ReportReader reader(text);
  const auto first = ReadExceptionReport(reader);
  const auto second = ReadExceptionReport(reader);
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_EQ(first.source, "source.cpp(5)");
  EXPECT_EQ(first.title, "title()");
  EXPECT_EQ(second.count, first.count + 1);
  const auto marks = TakeLines(channel::kAssert);
  ASSERT_EQ(marks.size(), 2u);
  EXPECT_EQ(marks[0].message, "ASSERT : modulestatus.cpp(839)");
  EXPECT_EQ(marks[0].sourceFile, "modulestatus.cpp");
  EXPECT_EQ(marks[0].line, 839);
}

std::wstring ReportMutexName() {
  wchar_t user[257] = L"$$";
  DWORD size = 257;
  GetUserNameW(user, &size);
  return std::wstring(L"Local\\") + channel::kExceptionReport.mutexStem + L"_" + user;
}

CHILD_ROLE(OwnReportMutex) {
  const HANDLE mutex = CreateMutexW(nullptr, TRUE, ReportMutexName().c_str());
  Say(mutex ? "owned" : "failed");
  Hear();
  return 0;
}

TEST(ExceptionReport, TakesTheMutexOverFromADeadWriter) {
  RemoveReportFile();
  // Somebody else keeps the mutex in being, so that its owner's death shows.
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, ReportMutexName().c_str());
  ChildProcess child("OwnReportMutex");
  ASSERT_EQ(child.WaitForLine(), "owned");
  child.Kill();
  VemoExceptLogOut(L"after", nullptr, nullptr, nullptr, 1, "source.cpp");
  CloseHandle(mutex);
  ReportReader reader(ReportFileText());
  EXPECT_EQ(ReadExceptionReport(reader).title, "after()");
}

TEST(ExceptionReport, IsGivenUpWithoutTheMutex) {
  RemoveReportFile();
  TakeLines(channel::kAssert);
  {
    // The first mutex is that of the mark in the assertion channel.
    const auto create = FAIL_CALL(CreateMutexW, 2, ERROR_ACCESS_DENIED, nullptr);
    EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK);
  }
  EXPECT_EQ(TakeMessages(channel::kAssert),
            (std::vector<std::string>{"ASSERT : modulestatus.cpp(839)", "ASSERT : modulestatus.cpp(845)"}));
  {
    const auto wait = STAND_IN(WaitForSingleObject, [](int nth, HANDLE object, DWORD timeoutMs) {
      EXPECT_EQ(timeoutMs, 60000u);
      return nth == 2 ? 258ul : WaitForSingleObject(object, timeoutMs);
    });
    EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK);
  }
  EXPECT_EQ(TakeMessages(channel::kAssert),
            (std::vector<std::string>{"ASSERT : modulestatus.cpp(839)", "ASSERT : modulestatus.cpp(849)"}));
  EXPECT_EQ(ReportFileText(), "");
}

std::FILE* OpenNothing(const wchar_t*, const wchar_t*) { return nullptr; }

TEST(ExceptionReport, IsGivenUpWithoutItsFile) {
  RemoveReportFile();
  TakeLines(channel::kAssert);
  {
    const ReplaceCall open("_wfopen", &OpenNothing);
    EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK);
  }
  EXPECT_EQ(ReportFileText(), "");
  VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp");
  EXPECT_NE(ReportFileText(), "") << "the mutex was not given back";
}

int BadHeap() { return -4; }

TEST(ExceptionReport, ChecksTheHeapAroundEverySection) {
  RemoveReportFile();
  TakeLines(channel::kAssert);
  const MadeFault fault;
  {
    const ReplaceCall check("_heapchk", &BadHeap);
    EXPECT_EQ(VemoExceptLogOut(L"title", "", &fault.record, &fault.context, 1, "source.cpp"), -4);
  }
  std::vector<std::string> expected;
  for (const int line :
       {832, 0, 287, 226, 265, 106, 213, 433, 721, 750, 540, 487, 504, 512, 532, 656, 714, 480, 419, 895}) {
    expected.push_back(line == 0 ? "ASSERT : modulestatus.cpp(839)"
                                 : "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(" + std::to_string(line) +
                                       "), _HeapCheck(), -4");
  }
  EXPECT_EQ(TakeMessages(channel::kAssert), expected);
}

TEST(ExceptionReport, LivesOnBadArguments) {
  LogFolder();
  const MadeFault fault;
  const auto* const badAddress = reinterpret_cast<const char*>(0x11);
  struct {
    const char* name;
    const wchar_t* title;
    const char* message;
    const EXCEPTION_RECORD* record;
    const CONTEXT* context;
    const char* sourceFile;
  } const cases[] = {
      {"title", reinterpret_cast<const wchar_t*>(badAddress), "", nullptr, nullptr, "a"},
      {"message", L"", badAddress, nullptr, nullptr, "a"},
      {"record", L"", "", reinterpret_cast<const EXCEPTION_RECORD*>(badAddress), nullptr, "a"},
      {"context", L"", "", &fault.record, reinterpret_cast<const CONTEXT*>(badAddress), "a"},
      {"sourceFile", L"", "", nullptr, nullptr, badAddress},
  };
  for (const auto& bad : cases) {
    TakeLines(channel::kModuleStatusError);
    RemoveReportFile();
    EXPECT_EQ(VemoExceptLogOut(bad.title, bad.message, bad.record, bad.context, 1, bad.sourceFile), _HEAPOK);
    const auto errors = TakeMessages(channel::kModuleStatusError);
    ASSERT_FALSE(errors.empty()) << bad.name;
    EXPECT_TRUE(errors[0].ends_with("(catch(...))")) << errors[0];
    // What does not need the bad argument is there, to the last section.
    const std::string text = ReportFileText();
    EXPECT_NE(text.find(">>>>>>>>>> TC="), std::string::npos) << bad.name;
    EXPECT_NE(text.find("=== Stack Walk ==="), std::string::npos) << bad.name;
    EXPECT_NE(text.find("=== Disk Free Space ==="), std::string::npos) << bad.name;
  }
}

TEST(ExceptionReport, SaysWhichExceptionInterruptedIt) {
  RemoveReportFile();
  TakeLines(channel::kModuleStatusError);
  {
    const auto time = STAND_IN(GetLocalTime, [](int nth, SYSTEMTIME* now) {
      if (nth == 2) throw new CException;  // the first is that of the mark in the assertion channel
      if (nth > 2) throw std::runtime_error("");
      GetLocalTime(now);
    });
    EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK);
  }
  EXPECT_EQ(ReportFileText(), "");
  {
    const auto time = STAND_IN(GetModuleFileNameA, [](int nth, HMODULE module, char* name, DWORD size) {
      if (nth == 2) throw new CException;
      return GetModuleFileNameA(module, name, size);
    });
    EXPECT_EQ(VemoExceptLogOut(L"title", "", nullptr, nullptr, 1, "source.cpp"), _HEAPOK);
  }
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError),
            (std::vector<std::string>{"ExceptLogOut(catch(CException* e))"}));
}

}  // namespace
}  // namespace qel::test
