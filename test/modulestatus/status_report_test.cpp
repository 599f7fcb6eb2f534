#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>

#include "qelibaselib/platform/mfc/exception.h"
#include "qelibaselib/qelibaselib.h"
#include "test/modulestatus/captured_fault.h"
#include "test/modulestatus/report_reader.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

constexpr uintmax_t kReportLimit = 10485760;

std::string StatusText(const wchar_t* title = L"title", const char* message = "") {
  return WrittenBy([&](std::FILE* stream) { ModuleStatusLogOut(stream, title, message); });
}

StatusReport Status(const wchar_t* title = L"title", const char* message = "") {
  ReportReader reader(StatusText(title, message));
  auto report = ReadStatusReport(reader);
  EXPECT_TRUE(reader.AtEnd());
  return report;
}

std::string NarrowOf(const wchar_t* wide) {
  char text[MAX_PATH * 4] = "";
  WideCharToMultiByte(CP_ACP, 0, wide, -1, text, sizeof text, nullptr, nullptr);
  return text;
}

TEST(StatusReport, DescribesTheProcess) {
  LogFolder();
  const auto report = Status(L"title", "message");
  EXPECT_EQ(report.title, "title(message)");
  EXPECT_EQ(report.processId, GetCurrentProcessId());
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  EXPECT_EQ(report.program, program);
  EXPECT_EQ(report.logPath, NarrowOf(VemoGetLogPath()));
  EXPECT_EQ(report.tempPath, NarrowOf(VemoGetTmpPath()));
  EXPECT_EQ(report.dataPath, NarrowOf(VemoGetDataPath()));
  EXPECT_EQ(report.threads, VemoOMPGetNumThreads());
  EXPECT_EQ(Status(nullptr).title, fs::path(report.program).filename().string() + "()");
}

TEST(StatusReport, ReturnsTheNumberOfCharacters) {
  int written = 0;
  const auto text = WrittenBy([&](std::FILE* stream) { written = ModuleStatusLogOut(stream, L"title", nullptr); });
  EXPECT_EQ(static_cast<size_t>(written), text.size());
  EXPECT_NE(text.find("##### title()\n"), std::string::npos);
}

// A made-up address space: what lies at an address, up to its end.
struct MadeRegion {
  DWORD end, state, type;
  void* base = nullptr;
};

SIZE_T QueryMade(const std::vector<MadeRegion>& regions, const void* address, MEMORY_BASIC_INFORMATION* information) {
  const auto at = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(address));
  for (const auto& region : regions) {
    if (at >= region.end) continue;
    *information = {};
    information->BaseAddress = const_cast<void*>(address);
    information->AllocationBase = region.base ? region.base : information->BaseAddress;
    information->RegionSize = region.end - at;
    information->State = region.state;
    information->Type = region.type;
    return sizeof *information;
  }
  return 0;
}

TEST(StatusReport, SumsTheFreeRegions) {
  constexpr DWORD kMiB = 1 << 20;
  void* const thisProgram = GetModuleHandleA(nullptr);
  const std::vector<MadeRegion> regions = {
      {kMiB - 1, MEM_FREE, 0},                         // no line of its own
      {kMiB, MEM_COMMIT, MEM_PRIVATE},                 // nothing
      {2 * kMiB, MEM_FREE, 0},                         // a line
      {3 * kMiB, MEM_COMMIT, MEM_IMAGE, thisProgram},  // an image, but not at its start
      {19 * kMiB - 1, MEM_FREE, 0},                    // one byte less than 16 MiB
      {19 * kMiB, MEM_RESERVE, MEM_PRIVATE},           // nothing
      {35 * kMiB, MEM_FREE, 0},                        // 16 MiB
      {36 * kMiB, MEM_COMMIT, MEM_IMAGE},              // no module's handle
      {68 * kMiB, MEM_FREE, 0},                        // 32 MiB
      {0x70000000, MEM_COMMIT, MEM_MAPPED},            // nothing
      {0xA0000000, MEM_FREE, 0},                       // counts whole, though it passes the walk's end
      {0xB0000000, MEM_COMMIT, MEM_PRIVATE},
      {0xC0000000, MEM_FREE, 0},  // behind the end
  };
  const auto query = STAND_IN(VirtualQuery, [&](int, const void* address, MEMORY_BASIC_INFORMATION* information,
                                                SIZE_T) { return QueryMade(regions, address, information); });
  const auto report = Status();
  ASSERT_EQ(report.freeRegions.size(), 5u);
  EXPECT_EQ(report.freeRegions[0].start, kMiB);
  EXPECT_EQ(report.freeRegions[0].end, 2 * kMiB);
  EXPECT_EQ(report.freeRegions[4].end, 0xA0000000);
  EXPECT_TRUE(report.modules.empty());
  const DWORD atLeast32 = 32 * kMiB + 0x30000000;
  const DWORD atLeast16 = atLeast32 + 16 * kMiB;
  EXPECT_EQ(report.freeBytes[0], atLeast16 + 16 * kMiB - 1 + kMiB + kMiB - 1);
  EXPECT_EQ(report.freeBytes[1], atLeast16);
  EXPECT_EQ(report.freeBytes[2], atLeast32);
  EXPECT_EQ(report.freeBytes[3], 0x30000000u);
  EXPECT_EQ(query.Calls(), 11);
}

TEST(StatusReport, AgreesWithTheAddressSpace) {
  void* const block = VirtualAlloc(nullptr, 8 << 20, MEM_RESERVE, PAGE_READWRITE);
  const auto base = reinterpret_cast<ULONG_PTR>(block);
  const auto covers = [&](const StatusReport& report) {
    return std::any_of(report.freeRegions.begin(), report.freeRegions.end(),
                       [&](const auto& region) { return region.start <= base && base < region.end; });
  };
  EXPECT_FALSE(covers(Status()));
  VirtualFree(block, 0, MEM_RELEASE);
  EXPECT_TRUE(covers(Status()));
}

TEST(StatusReport, NamesTheModules) {
  void* const module = GetModuleHandleA(nullptr);
  const std::vector<MadeRegion> regions = {{static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(module)), MEM_FREE, 0},
                                           {0x7FFF0000, MEM_COMMIT, MEM_IMAGE}};
  const auto query = STAND_IN(VirtualQuery, [&](int, const void* address, MEMORY_BASIC_INFORMATION* information,
                                                SIZE_T) { return QueryMade(regions, address, information); });
  MODULEINFO expected;
  ASSERT_TRUE(GetModuleInformation(GetCurrentProcess(), GetModuleHandleA(nullptr), &expected, sizeof expected));
  char line[MAX_PATH];
  const auto start = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(expected.lpBaseOfDll));
  std::snprintf(line, sizeof line, "%08lx - %08lx ( %08lx ) : ", start, start + expected.SizeOfImage,
                static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(expected.EntryPoint)));
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  EXPECT_NE(StatusText().find(line + fs::path(program).filename().string() + "\n"), std::string::npos) << line;
}

// More roots than fit into the usual room: the length is asked for and given.
TEST(StatusReport, AnyNumberOfDrives) {
  constexpr int kDrives = 1000;
  std::string roots;
  for (int i = 0; i < kDrives; ++i) roots += "/mounted/drive" + std::to_string(i) + '/' + '\0';
  const auto list = STAND_IN(GetLogicalDriveStringsA, [&](int, DWORD size, char* room) -> DWORD {
    if (size <= roots.size()) return static_cast<DWORD>(roots.size() + 1);
    std::memcpy(room, roots.c_str(), roots.size() + 1);
    return static_cast<DWORD>(roots.size());
  });
  const auto type = STAND_IN(GetDriveTypeA, [](int, const char*) -> UINT { return DRIVE_FIXED; });
  const auto space = STAND_IN(GetDiskFreeSpaceExA, [](int, const char*, auto...) {
    SetLastError(ERROR_NOT_READY);
    return FALSE;
  });
  const std::string report = StatusText();
  for (const int i : {0, kDrives - 1})
    EXPECT_NE(report.find("/mounted/drive" + std::to_string(i) + "/(3) : Drive not ready(0x15)"), std::string::npos);
}

TEST(StatusReport, TellsDrivesApart) {
  const auto list = STAND_IN(GetLogicalDriveStringsA, [](int, DWORD size, char* roots) -> DWORD {
    EXPECT_EQ(size, 4096u);
    std::memcpy(roots, "A\0B\0C\0D\0E\0", 11);
    return 10;
  });
  const auto type = STAND_IN(GetDriveTypeA, [](int, const char* root) { return static_cast<UINT>(2 + *root - 'A'); });
  const auto space = STAND_IN(
      GetDiskFreeSpaceExA,
      [](int, const char* root, ULARGE_INTEGER* available, ULARGE_INTEGER* total, ULARGE_INTEGER* free) -> BOOL {
        if (*root == 'C') {
          SetLastError(ERROR_NOT_READY);
          return FALSE;
        }
        available->QuadPart = 1ull << 40;
        total->QuadPart = 12345678901234ull;
        free->QuadPart = 7;
        return TRUE;
      });
  EXPECT_EQ(Status().disks,
            (std::vector<std::string>{
                "B(3) : FreeBytesAvailable=1099511627776, TotalNumberOfBytes=12345678901234, TotalNumberOfFreeBytes=7",
                "C(4) : Drive not ready(0x15)",
                "E(6) : FreeBytesAvailable=1099511627776, TotalNumberOfBytes=12345678901234, "
                "TotalNumberOfFreeBytes=7"}));
}

TEST(StatusReport, GoesOnWhenAQueryFails) {
  {
    const auto query = FAIL_CALL(VirtualQuery, 1, ERROR_INVALID_PARAMETER, 0u, 1000);
    const auto report = Status();
    EXPECT_EQ(std::accumulate(report.freeBytes, report.freeBytes + 4, 0ul), 0u);
  }
  {
    const auto memory = FAIL_CALL(GlobalMemoryStatusEx, 1, ERROR_INVALID_PARAMETER, FALSE, 1000);
    EXPECT_EQ(Status().memory.at("ullTotalPhys"), 0u);
  }
  {
    const auto drives = FAIL_CALL(GetLogicalDriveStringsA, 1, ERROR_INVALID_PARAMETER, 0u);
    EXPECT_TRUE(Status().disks.empty());
  }
  {
    const auto name = FAIL_CALL(GetModuleFileNameA, 1, ERROR_INVALID_PARAMETER, 0u, 1000);
    const auto report = Status();
    EXPECT_EQ(report.program, "");
    EXPECT_TRUE(report.modules.empty());
  }
  {
    const auto library = FAIL_CALL(LoadLibraryA, 1, ERROR_MOD_NOT_FOUND, nullptr);
    EXPECT_NE(StatusText().find("================ OS Version ================\n\n================"), std::string::npos);
  }
}

// A section of the report, the call in it that misbehaves, and what the error channel then says.
TEST(StatusReport, LosesOnlyTheSectionThatFaults) {
  LogFolder();
  const auto expectError = [](const char* section) {
    TakeLines(channel::kModuleStatusError);
    const std::string text = StatusText();
    EXPECT_EQ(TakeMessages(channel::kModuleStatusError), (std::vector<std::string>{section}));
    for (const char* title : {"= OS Version =", "= Virtual Memory Status =", "= System Status (GetSystemInfo) =",
                              "= Global Memory Status (GlobalMemoryStatusEx) =", "= Disk Free Space ="}) {
      EXPECT_NE(text.find(title), std::string::npos) << title << " after " << section;
    }
  };
  {
    const auto call = STAND_IN(VirtualQuery, [](int, const void*, MEMORY_BASIC_INFORMATION*, SIZE_T) -> SIZE_T {
      return ReadThrough(nullptr);
    });
    expectError("DebugOutVirtualMemoryStatus(catch(...))");
  }
  {
    const auto call = STAND_IN(GetSystemInfo, [](int, SYSTEM_INFO*) { WriteThrough(nullptr); });
    expectError("DebugOutSystemInfo(catch(...))");
  }
  {
    const auto call = STAND_IN(GetDriveTypeA, [](int, const char*) -> UINT { throw new CException; });
    expectError("DebugOutDiskFreeSpace(catch(CException* e))");
  }
}

TEST(StatusReport, AppendsUpToItsLimit) {
  LogFolder();
  const auto file = ChannelFile(channel::kModuleStatusReport);
  fs::remove(file);
  EXPECT_EQ(VemoModuleStatusLogOut(nullptr, nullptr), _HEAPOK);
  EXPECT_EQ(VemoModuleStatusLogOut(L"second", "message"), _HEAPOK);
  const std::string text = ReadWholeFile(file);
  EXPECT_TRUE(text.starts_with("\r\n#####\r\n"));
  ReportReader reader(text);
  const auto first = ReadStatusReport(reader);
  EXPECT_EQ(first.title, fs::path(first.program).filename().string() + "()");
  EXPECT_EQ(ReadStatusReport(reader).title, "second(message)");
  EXPECT_TRUE(reader.AtEnd());

  fs::resize_file(file, kReportLimit + 1);
  EXPECT_EQ(VemoModuleStatusLogOut(L"over", ""), _HEAPOK);
  EXPECT_EQ(fs::file_size(file), kReportLimit + 1);
  fs::resize_file(file, kReportLimit);
  EXPECT_EQ(VemoModuleStatusLogOut(L"at", ""), _HEAPOK);
  EXPECT_GT(fs::file_size(file), kReportLimit);
  fs::remove(file);
}

TEST(StatusReport, IsGivenUpWithoutTheMutex) {
  LogFolder();
  const auto file = ChannelFile(channel::kModuleStatusReport);
  fs::remove(file);
  TakeLines(channel::kAssert);
  TakeLines(channel::kWinApiWrap);
  {
    const auto create = FAIL_CALL(CreateMutexW, 1, ERROR_ACCESS_DENIED, nullptr);
    EXPECT_EQ(VemoModuleStatusLogOut(L"title", ""), _HEAPOK);
  }
  const auto failures = TakeLines(channel::kWinApiWrap);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].sourceFile, "modulestatus.cpp");
  EXPECT_EQ(failures[0].line, 774);
  {
    const auto wait = STAND_IN(WaitForSingleObject, [](int nth, HANDLE object, DWORD timeoutMs) {
      EXPECT_EQ(timeoutMs, 60000u);
      return nth == 1 ? 258ul : WaitForSingleObject(object, timeoutMs);
    });
    EXPECT_EQ(VemoModuleStatusLogOut(L"title", ""), _HEAPOK);
  }
  EXPECT_EQ(TakeMessages(channel::kAssert),
            (std::vector<std::string>{"ASSERT : modulestatus.cpp(775)", "ASSERT : modulestatus.cpp(779)"}));
  EXPECT_FALSE(fs::exists(file));
}

int BadHeap() { return -3; }

TEST(StatusReport, ReturnsTheHeapsState) {
  LogFolder();
  const ReplaceCall check("_heapchk", &BadHeap);
  TakeLines(channel::kAssert);
  EXPECT_EQ(VemoModuleStatusLogOut(L"title", ""), -3);
  const auto messages = TakeMessages(channel::kAssert);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(762), _HeapCheck(), -3");
  EXPECT_EQ(messages.back(), "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(815), _HeapCheck(), -3");
}

}  // namespace
}  // namespace qel::test
