#include "test/fileversion/module_builder.h"
#include "test/systemcalls/system_calls_test.h"

namespace qel::test {
namespace {

class ServiceCalls : public SystemCalls {
 protected:
  TestedExport Writing(const char* name, const LogChannel& channel, std::function<void()> call,
                       const char* whole = "") {
    return {name,
            [] {},
            [=] { return call(), true; },
            [=] {
              const std::string text = ReadWholeFile(ChannelFile(channel));
              return text.find(whole) != text.npos && (!*whole || text.ends_with("\r\n"));
            },
            {},
            Tells::kNothing,
            [=] { return !ReadWholeFile(ChannelFile(channel)).empty(); }};
  }
};

TEST_F(ServiceCalls, Lines) {
  const TestedExport line = Writing(
      "VemoFileLogOut", channel::kMisc, [] { VemoLogOutMisc("line", HOST); }, ":line");
  Drive(line);
  DriveFirstUse(line);
  const auto readDay = [&] {
    std::string text;
    for (const auto& file : fs::directory_iterator(Path("days"))) text = ReadWholeFile(file.path());
    return text;
  };
  Drive({"VemoLogOutFileDayHis",
         [&] {
           fs::remove_all(Path("days"));
           fs::create_directory(Path("days"));
         },
         [&] {
           VemoLogOutFileDayHis(L"systemcalls", Wide("days").c_str(), L"day", L"txt", 1000, HOST, "line");
           return true;
         },
         [&] { return readDay().ends_with("line\r\n"); },
         {},
         Tells::kNothing,
         [&] { return !readDay().empty(); }});
}

TEST_F(ServiceCalls, SynchronisationObjects) {
  const std::wstring name = L"systemcalls-" + std::to_wstring(GetCurrentProcessId());
  HANDLE made = nullptr;
  const auto holds = [&] { return made != nullptr; };
  const auto keep = [&](HANDLE object) {
    made = object;
    return Close(object);
  };
  const TestedExport mutex = {"CreateMutexX", [] {},
                              [&] { return keep(CreateMutexX(HOST, nullptr, FALSE, name.c_str())); }, holds};
  Drive(mutex);
  DriveFirstUse(mutex);
  Drive({"CreateEventX", [] {}, [&] { return keep(CreateEventX(HOST, nullptr, TRUE, TRUE, name.c_str())); }, holds});
  Drive({"CreateSemaphoreX", [] {}, [&] { return keep(CreateSemaphoreX(HOST, nullptr, 1, 1, name.c_str())); }, holds});
}

TEST_F(ServiceCalls, Memory) {
  constexpr DWORD kLarge = 8 << 20;
  Drive({"_MemAlloc and _MemFree",
         [] {},
         [] {
           void* block = _MemAlloc("host.cpp", 4711, kLarge, 0);
           if (block) _MemFree("host.cpp", 4711, block);
           return block != nullptr;
         },
         [] { return true; },
         {},
         Tells::kNothing});
  Drive({"_VMemAlloc and _VMemFree",
         [] {},
         [] {
           void* block = _VMemAlloc("host.cpp", 4711, kLarge, 0);
           return block && (*static_cast<char*>(block) = 1) && _VMemFree("host.cpp", 4711, block);
         },
         [] { return true; },
         {},
         Tells::kNothing});
  Drive({"MemAllocHandler", [] {}, [] { return MemAllocHandler(kLarge) == 1; }, [] { return true; }});
  Drive({"IsPhysMemShortage", [] {}, [] { return !IsPhysMemShortage(101); }, [] { return true; }, "", Tells::kNothing});
  MEMORYSTATUSEX status;
  DWORD largest, sum;
  double seconds;
  const TestedExport memory = {"VemoGetMemoryStatus",
                               [&] {
                                 status = {};
                                 status.dwLength = sizeof status;
                               },
                               [&] {
                                 VemoGetMemoryStatus(&largest, &sum, &status, &seconds);
                                 return status.ullTotalPhys != 0;
                               },
                               [&] { return status.ullTotalPhys >= status.ullAvailPhys && largest <= sum; },
                               {},
                               Tells::kNothing};
  Drive(memory);
  DriveFirstUse(memory);
}

TEST_F(ServiceCalls, VersionsAndDisplay) {
  Drive({"CreateCFileVersion",
         [&] {
           const ByteVector bytes = BuildModule(
               BuildVersionResource({{{"040904e4", {{"FileVersion", u"1.2.3.4"}}}}, {{0x0409, 0x04E4}}}), {});
           Write("module.dll", {bytes.begin(), bytes.end()});
         },
         [&] {
           void* made = CreateCFileVersion(Wide("module.dll").c_str());
           const char* const* strings = GetVerCFileVersion(made);
           const bool found =
               strings && strings[kVersionFileVersion] && std::string("1.2.3.4") == strings[kVersionFileVersion];
           ReleaseCFileVersion(made);
           return found;
         },
         [] { return true; },
         {},
         Tells::kNothing});
  Drive(
      {"VemoDispInf", [] {}, [] { return VemoDispInf("text", TRUE), true; }, [] { return true; }, "", Tells::kNothing});
}

// A debugger that ends without a word. The filter leaves its event to the debugger, so the test closes it.
TEST_F(ServiceCalls, StartOfADebugger) {
  HANDLE event = nullptr;
  const auto profile = STAND_IN(GetProfileStringA, [](int, const char*, const char*, const char*, char* text, DWORD) {
    std::strcpy(text, "/bin/true %ld %ld");
    return 17ul;
  });
  const auto create =
      STAND_IN(CreateEventW, [&](int, SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        return event = CreateEventW(security, manual, set, name);
      });
  Drive({"AeDebuggerUnhandledExceptionFilter",
         [&] { event = nullptr; },
         [&] {
           const LONG result = AeDebuggerUnhandledExceptionFilter();
           Close(event);
           return result == EXCEPTION_CONTINUE_SEARCH;
         },
         [] { return true; },
         {},
         Tells::kNothing});
}

TEST_F(ServiceCalls, Reports) {
  CONTEXT context;
  RtlCaptureContext(&context);
  EXCEPTION_RECORD record{};
  record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
  // Each line of a report is written by itself, so that a line may be missing.
  constexpr int kMostOfReport = 50;
  Drive(Writing("VemoModuleStatusLogOut", channel::kModuleStatusReport,
                [] { VemoModuleStatusLogOut(L"title", "message"); }),
        kMostOfReport);
  Drive(Writing("VemoExceptLogOut", channel::kExceptionReport,
                [&] { VemoExceptLogOut(L"title", "message", &record, &context, 1, "s"); }),
        kMostOfReport);
}

}  // namespace
}  // namespace qel::test
