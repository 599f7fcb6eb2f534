#include <cwchar>

#include "qelibaselib/platform/mfc/exception.h"
#include "qellog/text/decode_text.h"
#include "test/modulestatus/report_text.h"
#include "test/support/bad_pointer.h"

namespace qel::test {
namespace {

using StatusReport = ReportTest;

constexpr uintmax_t kReportLimit = 10485760;

std::string StatusText(const wchar_t* title = L"title", const char* message = "") {
  return WrittenBy([&](std::FILE* stream) {
    std::fflush(stream);
    const int written = ModuleStatusLogOut(stream, title, message);
    EXPECT_EQ(written, std::ftell(stream));
  });
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

constexpr DWORD kMiB = 1 << 20;
void* const kModule = reinterpret_cast<void*>(36 * kMiB);
const std::vector<MadeRegion> kRegions = {
    {kMiB - 1, MEM_FREE, 0},                     // no line of its own
    {kMiB, MEM_COMMIT, MEM_PRIVATE},             // nothing
    {2 * kMiB, MEM_FREE, 0},                     // a line
    {3 * kMiB, MEM_COMMIT, MEM_IMAGE, kModule},  // an image, but not at its start
    {19 * kMiB - 1, MEM_FREE, 0},                // one byte less than 16 MiB
    {19 * kMiB, MEM_RESERVE, MEM_PRIVATE},       // nothing
    {35 * kMiB, MEM_FREE, 0},                    // 16 MiB
    {36 * kMiB, MEM_COMMIT, MEM_IMAGE},          // no module's handle
    {37 * kMiB, MEM_COMMIT, MEM_IMAGE},          // a module
    {69 * kMiB, MEM_FREE, 0},                    // 32 MiB
    {0x70000000, MEM_COMMIT, MEM_MAPPED},        // nothing
    {0xA0000000, MEM_FREE, 0},                   // counts whole, though it passes the walk's end
    {0xB0000000, MEM_COMMIT, MEM_PRIVATE},
    {0xC0000000, MEM_FREE, 0},  // behind the end
};

LONG WINAPI ReadMadeVersion(OSVERSIONINFOEXW* version) {
  version->dwMajorVersion = 6;
  version->dwMinorVersion = 1;
  version->dwBuildNumber = 7601;
  version->dwPlatformId = 2;
  std::wcscpy(version->szCSDVersion, L"Pack 1");
  return 0;
}

// A name as the system's header has it: some stand for another.
#define NAME_OF(call) NAME_AS_TEXT(call)
#define NAME_AS_TEXT(call) #call

// A machine whose report is known.
struct MadeMachine {
  StandIn<"GetLocalTime", decltype(&::GetLocalTime)> time{
      [](int, SYSTEMTIME* now) { *now = {2024, 3, 2, 5, 14, 7, 9, 42}; }};
  StandIn<"GetProcessWorkingSetSize", decltype(&::GetProcessWorkingSetSize)> workingSet{
      [](int, HANDLE, SIZE_T* minimum, SIZE_T* maximum) {
        *minimum = 3 * kMiB;
        *maximum = 5 * kMiB;
        return TRUE;
      }};
  StandIn<"GetProcAddress", decltype(&::GetProcAddress)> version{
      [](auto...) { return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&ReadMadeVersion)); }};
  StandIn<"VirtualQuery", decltype(&::VirtualQuery)> query{
      [](int, const void* address, MEMORY_BASIC_INFORMATION* information, SIZE_T) {
        return QueryMade(kRegions, address, information);
      }};
  StandIn<"GetModuleFileNameA", decltype(&::GetModuleFileNameA)> name{[](int, HMODULE module, char* path, DWORD size) {
    const char* const text = module == kModule ? "C:\\folder\\made.dll" : module ? "" : "C:\\folder\\viewer.exe";
    return static_cast<DWORD>(std::snprintf(path, size, "%s", text));
  }};
  StandIn<NAME_OF(GetModuleInformation), decltype(&::GetModuleInformation)> module{
      [](int, HANDLE, HMODULE, MODULEINFO* information, DWORD) {
        *information = {reinterpret_cast<void*>(0x2400000), 0x5000, reinterpret_cast<void*>(0x2401234)};
        return TRUE;
      }};
  StandIn<"GetSystemInfo", decltype(&::GetSystemInfo)> system{[](int, SYSTEM_INFO* made) {
    made->dwPageSize = 4096;
    made->lpMinimumApplicationAddress = reinterpret_cast<void*>(0x10000);
    made->lpMaximumApplicationAddress = reinterpret_cast<void*>(0x7FFEFFFF);
    made->dwActiveProcessorMask = 0xB;
    made->dwNumberOfProcessors = 4;
    made->dwProcessorType = 586;
    made->dwAllocationGranularity = 0x10000;
    made->wProcessorLevel = 6;
    made->wProcessorRevision = 0x9E0A;
  }};
  StandIn<"GlobalMemoryStatusEx", decltype(&::GlobalMemoryStatusEx)> memory{[](int, MEMORYSTATUSEX* status) {
    EXPECT_EQ(status->dwLength, 64u);
    *status = {64, 37, 12345678901, 2 * kMiB - 1, 3 * kMiB, 4 * kMiB, 5 * kMiB, 6 * kMiB, 7};
    return TRUE;
  }};
  StandIn<"GetLogicalDriveStringsA", decltype(&::GetLogicalDriveStringsA)> drives{
      [](int, DWORD size, char* roots) -> DWORD {
        EXPECT_EQ(size, 4096u);
        std::memcpy(roots, "A\0B\0C\0D\0E\0", 11);
        return 10;
      }};
  StandIn<"GetDriveTypeA", decltype(&::GetDriveTypeA)> types{
      [](int, const char* root) { return static_cast<UINT>(2 + *root - 'A'); }};
  StandIn<"GetDiskFreeSpaceExA", decltype(&::GetDiskFreeSpaceExA)> space{
      [](int, const char* root, ULARGE_INTEGER* available, ULARGE_INTEGER* total, ULARGE_INTEGER* free) -> BOOL {
        available->QuadPart = 1ull << 40;
        total->QuadPart = 12345678901234ull;
        free->QuadPart = 7;
        SetLastError(ERROR_NOT_READY);
        return *root != 'C';
      }};
};

TEST_F(StatusReport, HasThisText) {
  const std::string process = std::to_string(GetCurrentProcessId()), threads = std::to_string(VemoOMPGetNumThreads());
  const MadeMachine machine;
  const std::string text = StatusText(L"title", "message");
  EXPECT_EQ(text, "\n#####\n#####\n##### 2024/03/05 14:07:09.042\n##### title(message)\n##### ProcessId()=" + process +
                      "\n##### ExePath  : C:\\folder\\viewer.exe\n##### LogPath  : " + LogFolder().string() +
                      "\n##### TempPath : ?:\\???\n##### DataPath : ?:\\???\n##### OmpNum   : " + threads +
                      "\n##### OmpNum   : " + threads +
                      R"(
##### WSS      : 3, 5
#####

================ OS Version ================
MajorVersion=6
MinorVersion=1
BuildNumber=7601
PlatformId=2
CSDVersion=Pack 1

===================== Virtual Memory Status =====================
00100000 - 00200000 (      1 MBytes ) : MEM_FREE
00300000 - 012fffff (     15 MBytes ) : MEM_FREE
01300000 - 02300000 (     16 MBytes ) : MEM_FREE
02400000 - 02405000 ( 02401234 ) : made.dll
02500000 - 04500000 (     32 MBytes ) : MEM_FREE
70000000 - a0000000 (    768 MBytes ) : MEM_FREE
)"
                      // In code page 932.
                      "\x8B\xF3\x82\xAB\x97\x65\x97\xCA         =   874512382 Bytes (    833 MBytes )\n16MB"
                      "\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA =   855638016 Bytes (    816 MBytes )\n32MB"
                      "\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA =   838860800 Bytes (    800 MBytes )\n"
                      "\x98\x41\x91\xB1\x8B\xF3\x82\xAB\x97\x65\x97\xCA     =   805306368 Bytes (    768 MBytes )\n"
                      R"(
======================= System Status (GetSystemInfo) =======================
dwPageSize                  = 4096
lpMinimumApplicationAddress = 00010000(H)
lpMaximumApplicationAddress = 7ffeffff(H)
dwActiveProcessorMask       = 0000000b(H)
dwNumberOfProcessors        = 4
dwProcessorType             = 586
dwAllocationGranularity     = 00010000(H)
wProcessorLevel             = 0006(H)
wProcessorRevision          = 9e0a(H)

================ Global Memory Status (GlobalMemoryStatusEx) ================
dwMemoryLoad             = 37
ullTotalPhys             = 12345678901 Bytes (  11773 MBytes )
ullAvailPhys             =     2097151 Bytes (      1 MBytes )
ullTotalPageFile         =     3145728 Bytes (      3 MBytes )
ullAvailPageFile         =     4194304 Bytes (      4 MBytes )
ullTotalVirtual          =     5242880 Bytes (      5 MBytes )
ullAvailVirtual          =     6291456 Bytes (      6 MBytes )
ullAvailExtendedVirtual  =           7 Bytes (      0 MBytes )

================ Disk Free Space ================
B(3) : FreeBytesAvailable=1099511627776, TotalNumberOfBytes=12345678901234, TotalNumberOfFreeBytes=7
C(4) : Drive not ready(0x15)
E(6) : FreeBytesAvailable=1099511627776, TotalNumberOfBytes=12345678901234, TotalNumberOfFreeBytes=7
)");
  EXPECT_EQ(machine.query.Calls(), 12);

  const auto report = qellog::ParseStatusReport(text);
  EXPECT_EQ(report.heading, "title(message)");
  EXPECT_EQ(report.processId, GetCurrentProcessId());
  EXPECT_EQ(report.banner.size(), 6u);
  EXPECT_EQ(ValueOf(report.banner, "OmpNum"), threads);
  EXPECT_EQ(report.system.size(), 5u + 9u);
  EXPECT_EQ(ValueOf(report.system, "dwNumberOfProcessors"), "4");
  ASSERT_EQ(report.modules.size(), 1u);
  EXPECT_EQ(report.modules[0].name, "made.dll");
  EXPECT_EQ(report.modules[0].entryPoint, 0x2401234u);
  ASSERT_EQ(report.freeRegions.size(), 5u);
  for (const auto& region : report.freeRegions) EXPECT_EQ(region.mebibytes, (region.end - region.start) >> 20);
  ASSERT_EQ(report.freeSums.size(), 4u);
  EXPECT_EQ(qellog::DecodeText(report.freeSums[3].name), "連続空き容量");
  EXPECT_EQ(report.memory.size(), 8u);
  EXPECT_EQ(report.drives.size(), 3u);
  EXPECT_TRUE(report.reachesDrives);
  EXPECT_NE(StatusText(nullptr, nullptr).find("\n##### viewer.exe()\n"), std::string::npos);
}

TEST_F(StatusReport, AgreesWithTheAddressSpace) {
  void* const block = VirtualAlloc(nullptr, 8 << 20, MEM_RESERVE, PAGE_READWRITE);
  const auto base = reinterpret_cast<ULONG_PTR>(block);
  const auto isFree = [&] {
    const auto report = qellog::ParseStatusReport(StatusText());
    EXPECT_FALSE(report.modules.empty());
    return std::any_of(report.freeRegions.begin(), report.freeRegions.end(),
                       [&](const auto& region) { return region.start <= base && base < region.end; });
  };
  EXPECT_FALSE(isFree());
  VirtualFree(block, 0, MEM_RELEASE);
  EXPECT_TRUE(isFree());
}

// More roots than fit into the usual room: the length is asked for and given.
TEST_F(StatusReport, AnyNumberOfDrives) {
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

TEST_F(StatusReport, GoesOnWhenAQueryFails) {
  const std::pair<FailingCall, const char*> cases[] = {
      {FAILING_CALL(VirtualQuery, ERROR_INVALID_PARAMETER, 0ul), "=           0 Bytes (      0 MBytes )\n\n======"},
      {FAILING_CALL(GlobalMemoryStatusEx, ERROR_INVALID_PARAMETER, FALSE),
       "\nullTotalPhys             =           0 B"},
      {FAILING_CALL(GetLogicalDriveStringsA, ERROR_INVALID_PARAMETER, 0ul), "= Disk Free Space ================\n"},
      {FAILING_CALL(GetModuleFileNameA, ERROR_INVALID_PARAMETER, 0ul), "\n##### ExePath  : \n"},
      {FAILING_CALL(LoadLibraryA, ERROR_MOD_NOT_FOUND, nullptr), "= OS Version ================\n\n======"},
  };
  for (const auto& [call, part] : cases) {
    const auto failure = call.inject(1, 1000);
    const std::string text = StatusText();
    EXPECT_NE(text.find(part), std::string::npos) << call.name;
    EXPECT_TRUE(qellog::ParseStatusReport(text).reachesDrives);
    if (call.name == std::string("GetLogicalDriveStringsA")) {
      EXPECT_TRUE(text.ends_with(part)) << text;
    }
  }
}

// A section of the report, the call in it that misbehaves, and what the error channel then says.
TEST_F(StatusReport, LosesOnlyTheSectionThatFaults) {
  const auto expectError = [](const char* error) {
    TakeLines(channel::kModuleStatusError);
    const std::string text = StatusText();
    EXPECT_EQ(TakeMessages(channel::kModuleStatusError), Messages{error});
    for (const char* title : {"= OS Version =", "= Virtual Memory Status =", "= System Status (GetSystemInfo) =",
                              "= Global Memory Status (GlobalMemoryStatusEx) =", "= Disk Free Space ="}) {
      EXPECT_NE(text.find(title), std::string::npos) << title << " after " << error;
    }
  };
  {
    const auto call = FAULT_IN(VirtualQuery);
    expectError("DebugOutVirtualMemoryStatus(catch(...))");
  }
  {
    const auto call = STAND_IN(GetSystemInfo, [](auto...) { WriteBadAddress(); });
    expectError("DebugOutSystemInfo(catch(...))");
  }
  {
    const auto call = STAND_IN(GetDriveTypeA, [](auto...) -> UINT { throw new CException; });
    expectError("DebugOutDiskFreeSpace(catch(CException* e))");
  }
}

TEST_F(StatusReport, AppendsUpToItsLimit) {
  const auto file = ChannelFile(channel::kModuleStatusReport);
  EXPECT_EQ(VemoModuleStatusLogOut(nullptr, nullptr), _HEAPOK);
  EXPECT_EQ(VemoModuleStatusLogOut(L"second", "message"), _HEAPOK);
  const std::string text = ReadWholeFile(file);
  EXPECT_TRUE(text.starts_with("\r\n#####\r\n"));
  const auto reports = ReadStatusReports(text);
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].heading, fs::path(ProgramPath()).filename().string() + "()");
  EXPECT_EQ(reports[1].heading, "second(message)");

  fs::resize_file(file, kReportLimit + 1);
  EXPECT_EQ(VemoModuleStatusLogOut(L"over", ""), _HEAPOK);
  EXPECT_EQ(fs::file_size(file), kReportLimit + 1);
  fs::resize_file(file, kReportLimit);
  EXPECT_EQ(VemoModuleStatusLogOut(L"at", ""), _HEAPOK);
  EXPECT_GT(fs::file_size(file), kReportLimit);
}

int BadHeap() { return -3; }

TEST_F(StatusReport, ReturnsTheHeapsState) {
  const ReplaceCall check("_heapchk", &BadHeap);
  EXPECT_EQ(VemoModuleStatusLogOut(L"title", ""), -3);
  const auto messages = TakeMessages(channel::kAssert);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(762), _HeapCheck(), -3");
  EXPECT_EQ(messages.back(), "ASSERT : modulestatus.cpp(62), Error : modulestatus.cpp(815), _HeapCheck(), -3");
}

}  // namespace
}  // namespace qel::test
