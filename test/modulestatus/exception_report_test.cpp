#include <stdexcept>

#include "qelibaselib/platform/mfc/exception.h"
#include "test/modulestatus/report_text.h"

namespace qel::test {
namespace {

// A record and a context in which every member has a value of its own.
struct MadeFault {
  EXCEPTION_RECORD record{};
  CONTEXT context{};

  MadeFault() {
    record = {0xC0000005, 1, reinterpret_cast<EXCEPTION_RECORD*>(0xABCDEF01), reinterpret_cast<void*>(0xCDEF02), 2, {}};
    for (DWORD i = 0; i < 15; ++i) record.ExceptionInformation[i] = 0xA0 + i;
    auto* bytes = reinterpret_cast<unsigned char*>(&context);
    for (size_t i = 0; i < sizeof context; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 256);
    context.Eip = context.Esp = context.Ebp = 0;  // nothing there that can be read
  }

  // Without the symbols, which take the debug help of Windows a second.
  std::string Text(const wchar_t* title = L"title", const char* message = "message",
                   const char* sourceFile = "source.cpp") const {
    const auto symbols = FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE);
    return WrittenBy([&](std::FILE* stream) {
      EXPECT_EQ(ExceptLogOut(stream, title, message, &record, &context, 17, sourceFile, GetCurrentProcess(), 4711,
                             GetCurrentThread()),
                _HEAPOK);
    });
  }
  qellog::ExceptionReport Report() const { return ReadExceptionReports(Text()).at(0); }
};

using ExceptionReport = ReportTest;

std::string ReportFileText() { return ReadWholeFile(ChannelFile(channel::kExceptionReport)); }

// What stands before the record.
std::string Banner(unsigned long count, const std::string& title, const std::string& source) {
  const std::string separator = Print("%s\n", std::string(87, '>').c_str());
  const unsigned long process = GetCurrentProcessId(), thread = GetCurrentThreadId();
  return "\n" + separator + separator + ">>>>>>>>>> 2024/03/05 14:07:09.042\n>>>>>>>>>> " + title + "\n>>>>>>>>>> " +
         ProgramPath() + Print("\n>>>>>>>>>> TC=%lu, ProcessId()=%lu, ThreadId()=%lu\n", count, process, thread) +
         separator + separator +
         "======================= File Information ==============================================\n" + source +
         "\n======================= Exception Information(EXCEPTION_RECORD) =======================\n" +
         Print("processID=%lu, threadId=%lu, omp_get_thread_num=0\n", process, thread);
}

constexpr char kRecord[] = R"(ExceptionCode    = 0xc0000005
ExceptionFlags   = 0x00000001
ExceptionRecord  = 0xABCDEF01
ExceptionAddress = 0x00CDEF02
NumberParameters = 0x00000002
ExceptionInformation[0] = 0x000000A0
ExceptionInformation[1] = 0x000000A1
======================= Exception Information(CONTEXT) ================================
Eax    = 0xe5ded7d0
Ebx    = 0x918a837c
Ecx    = 0xc9c2bbb4
Edx    = 0xada69f98
Esi    = 0x756e6760
Edi    = 0x59524b44
Eip    = 0x00000000
Esp    = 0x00000000
Ebp    = 0x00000000
EFlags = 0x554e4740
SegCs  = 0x39322b24
SegDs  = 0x3d362f28
SegEs  = 0x211a130c
SegSs  = 0x8d867f78
SegFs  = 0x05fef7f0
SegGs  = 0xe9e2dbd4
ContextFlags = 0x150e0700
Dr0 = 0x312a231c
Dr1 = 0x4d463f38
Dr2 = 0x69625b54
Dr3 = 0x857e7770
Dr6 = 0xa19a938c
Dr7 = 0xbdb6afa8
FloatSave.ControlWord   = 0xd9d2cbc4
FloatSave.StatusWord    = 0xf5eee7e0
FloatSave.TagWord       = 0x110a03fc
FloatSave.ErrorOffset   = 0x2d261f18
FloatSave.ErrorSelector = 0x49423b34
FloatSave.DataOffset    = 0x655e5750
FloatSave.DataSelector  = 0x817a736c
FloatSave.Cr0NpxState   = 0xcdc6bfb8
)";

std::string Area(const char* name, const BYTE* bytes, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    if (i % 16 == 0) text += name + Print("[%3d] :", static_cast<int>(i));
    text += (i % 16 == 8 ? " - " : " ") + Print("%02x", bytes[i]) + (i % 16 == 15 ? "\n" : "");
  }
  return text;
}

// A clock that stands, so that a report's text is known.
auto StandingClock() {
  return STAND_IN(GetLocalTime, [](int, SYSTEMTIME* now) { *now = {2024, 3, 2, 5, 14, 7, 9, 42}; });
}

TEST_F(ExceptionReport, HasThisText) {
  const auto clock = StandingClock();
  const MadeFault fault;
  const CONTEXT& context = fault.context;
  const unsigned long count = fault.Report().count;
  const std::string text = fault.Text(L"\u00DCberschrift", "100 %s %n", "folder/source.cpp");
  char title[64] = "";
  WideCharToMultiByte(CP_ACP, 0, L"\u00DCberschrift", -1, title, sizeof title, nullptr, nullptr);
  const size_t code = text.find("\n======================= Machine Code Dump =====");
  EXPECT_EQ(text.substr(0, code), Banner(count + 1, title + std::string("(100 %s %n)"), "folder/source.cpp(17)") +
                                      kRecord + Area("FloatSave.RegisterArea", context.FloatSave.RegisterArea, 80) +
                                      Area("ExtendedRegisters", context.ExtendedRegisters, 512));
  EXPECT_NE(text.find(title + std::string("()\n##### ProcessId"), code), std::string::npos) << "of the status report";

  const auto report = qellog::ParseExceptionReport(text);
  EXPECT_EQ(report.exception.value().code, 0xC0000005u);
  EXPECT_EQ(report.exception->flags, 1u);
  EXPECT_EQ(report.exception->address, 0xCDEF02u);
  EXPECT_EQ(report.exception->parameters, (std::vector<std::uint32_t>{0xA0, 0xA1}));
  EXPECT_EQ(report.registers.size(), 16u + 7u + 8u);
  EXPECT_EQ(ValueOf(report.registers, "FloatSave.ControlWord"), Print("0x%08lx", context.FloatSave.ControlWord));
  EXPECT_EQ(report.areas.size(), 5u + 32u);
  EXPECT_TRUE(report.IsWhole());
}

TEST_F(ExceptionReport, SaysWhatIsMissing) {
  const auto clock = StandingClock();
  const unsigned long count = MadeFault().Report().count;
  const std::string text = WrittenBy([](std::FILE* stream) {
    EXPECT_EQ(ExceptLogOut(stream, nullptr, nullptr, nullptr, nullptr, -3, nullptr, GetCurrentProcess(), 0,
                           GetCurrentThread()),
              _HEAPOK);
  });
  EXPECT_TRUE(
      text.starts_with(Banner(count + 1, "()", "(-3)") +
                       "EXCEPTION_RECORD not exist.\n"
                       "======================= Exception Information(CONTEXT) ================================\n"
                       "CONTEXT not exist.\n\n"
                       "======================= Stack Walk ==============================================\n"
                       "Context not exist(122)\n\n#####\n#####\n##### 2024/03/05 14:07:09.042\n##### ()\n"))
      << text;
}

TEST_F(ExceptionReport, PrintsAtMostFifteenParameters) {
  MadeFault fault;
  for (const auto& [stated, printed] : {std::pair<DWORD, size_t>{0, 0}, {15, 15}, {20, 15}, {0xFFFFFFFF, 15}}) {
    fault.record.NumberParameters = stated;
    const auto exception = fault.Report().exception.value();
    EXPECT_EQ(exception.parameterCount, stated);
    EXPECT_EQ(exception.parameters.size(), printed);
  }
}

TEST_F(ExceptionReport, AppendsToItsFile) {
  const auto symbols = OwnDebugHelpOnly();
  const MadeFault fault;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(VemoExceptLogOut(L"title", i == 0 ? nullptr : "two\nlines (1)", &fault.record, &fault.context, 5,
                               "c:\\folder\\source.cpp"),
              _HEAPOK);
  }
  EXPECT_TRUE(ReportFileText().starts_with("\r\n>>>"));
  const auto reports = TakeExceptionReports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].heading, "title()");
  EXPECT_EQ(reports[1].heading, "title(two\nlines (1))");
  EXPECT_EQ(reports[0].program, ProgramPath());
  EXPECT_EQ(reports[0].sourceFile, "source.cpp");
  EXPECT_EQ(reports[1].count, reports[0].count + 1);
  EXPECT_EQ(TakePlacedMessages(channel::kAssert), Messages(2, "modulestatus.cpp(839): ASSERT : modulestatus.cpp(839)"));
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

TEST_F(ExceptionReport, TakesTheMutexOverFromADeadWriter) {
  // Somebody else keeps the mutex in being, so that its owner's death shows.
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, ReportMutexName().c_str());
  ChildProcess child("OwnReportMutex");
  ASSERT_EQ(child.WaitForLine(), "owned");
  child.Kill();
  VemoExceptLogOut(L"after", nullptr, nullptr, nullptr, 1, "source.cpp");
  CloseHandle(mutex);
  EXPECT_EQ(TakeOnlyExceptionReport().heading, "after()");
}

int BadHeap() { return -4; }

TEST_F(ExceptionReport, ChecksTheHeapAroundEverySection) {
  const auto symbols = OwnDebugHelpOnly();
  const MadeFault fault;
  {
    const ReplaceCall check("_heapchk", &BadHeap);
    EXPECT_EQ(VemoExceptLogOut(L"title", "", &fault.record, &fault.context, 1, "source.cpp"), -4);
  }
  Messages expected;
  for (const int line :
       {832, 0, 287, 226, 265, 106, 213, 433, 721, 750, 540, 487, 504, 512, 532, 656, 714, 480, 419, 895}) {
    expected.push_back(line == 0 ? "ASSERT : modulestatus.cpp(839)"
                                 : "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(" + std::to_string(line) +
                                       "), _HeapCheck(), -4");
  }
  EXPECT_EQ(TakeMessages(channel::kAssert), expected);
}

TEST_F(ExceptionReport, LivesOnBadArguments) {
  const auto symbols = OwnDebugHelpOnly();
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
    fs::remove(ChannelFile(channel::kExceptionReport));
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

TEST_F(ExceptionReport, SaysWhichExceptionInterruptedIt) {
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
  EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{"ExceptLogOut(catch(CException* e))"});
}

}  // namespace
}  // namespace qel::test
