// Figures of the machine, the process, its modules and its user.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

TEST(Clock, LocalTimeIsAValidDate) {
  SYSTEMTIME time = {};
  GetLocalTime(&time);
  EXPECT_GE(time.wYear, 2024);
  EXPECT_TRUE(time.wMonth >= 1 && time.wMonth <= 12);
  EXPECT_TRUE(time.wDay >= 1 && time.wDay <= 31);
  EXPECT_LE(time.wDayOfWeek, 6);
  EXPECT_LT(time.wHour, 24);
  EXPECT_LT(time.wMilliseconds, 1000);
  // Sakamoto's rule: day and weekday belong together.
  constexpr int kOffsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  const int year = time.wYear - (time.wMonth < 3);
  EXPECT_EQ((year + year / 4 - year / 100 + year / 400 + kOffsets[time.wMonth - 1] + time.wDay) % 7, time.wDayOfWeek);
}

TEST(Clock, CountersAgree) {
  LARGE_INTEGER frequency = {}, before = {}, after = {};
  ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
  EXPECT_EQ(frequency.QuadPart, 10'000'000);
  ASSERT_TRUE(QueryPerformanceCounter(&before));
  const DWORD start = GetTickCount();
  Sleep(40);
  const DWORD ticks = GetTickCount() - start;
  ASSERT_TRUE(QueryPerformanceCounter(&after));
  const double counted = (after.QuadPart - before.QuadPart) / 10'000.0;
  EXPECT_GE(ticks, 24u) << "two steps of 16 ms can be missing";
  EXPECT_GE(counted + 17, ticks) << "the outer pair holds the inner one";
}

TEST(MemoryStatus, Figures) {
  MEMORYSTATUSEX status = {};
  status.dwLength = sizeof status;
  SetLastError(kUntouched);
  ASSERT_TRUE(GlobalMemoryStatusEx(&status));
  EXPECT_EQ(GetLastError(), kUntouched);
  EXPECT_LE(status.dwMemoryLoad, 100u);
  EXPECT_GT(status.ullTotalPhys, 64u << 20);
  EXPECT_TRUE(status.ullAvailPhys > 0 && status.ullAvailPhys <= status.ullTotalPhys);
  EXPECT_GE(status.ullTotalPageFile, status.ullTotalPhys);
  EXPECT_LE(status.ullAvailPageFile, status.ullTotalPageFile);
  EXPECT_EQ(status.ullTotalVirtual, 0x7FFE0000u);
  EXPECT_LE(status.ullAvailVirtual, status.ullTotalVirtual);
  EXPECT_EQ(status.ullAvailExtendedVirtual, 0u);
  for (const DWORD length : {0ul, 63ul, 65ul}) {
    status.dwLength = length;
    EXPECT_CALL(GlobalMemoryStatusEx(&status), FALSE, ERROR_INVALID_PARAMETER);
  }
}

TEST(SystemInfo, Figures) {
  SYSTEM_INFO info = {};
  GetSystemInfo(&info);
  EXPECT_EQ(info.wProcessorArchitecture, 0);
  EXPECT_EQ(info.dwPageSize, 4096u);
  EXPECT_EQ(info.lpMinimumApplicationAddress, reinterpret_cast<void*>(0x10000));
  EXPECT_EQ(info.lpMaximumApplicationAddress, reinterpret_cast<void*>(0x7FFEFFFF));
  EXPECT_EQ(info.dwAllocationGranularity, 0x10000u);
  EXPECT_EQ(info.dwProcessorType, 586u);
  ASSERT_TRUE(info.dwNumberOfProcessors >= 1 && info.dwNumberOfProcessors <= 32);
  EXPECT_EQ(info.dwActiveProcessorMask, 0xFFFFFFFFu >> (32 - info.dwNumberOfProcessors));
  unsigned signature, b, c, d;
  __asm__("cpuid" : "=a"(signature), "=b"(b), "=c"(c), "=d"(d) : "a"(1), "c"(0));
  const unsigned family = signature >> 8 & 15;
  EXPECT_EQ(info.wProcessorLevel, family == 15 ? 15 + (signature >> 20 & 0xFF) : family);
  const unsigned model = (signature >> 12 & 0xF0) | (signature >> 4 & 15);  // as families 6 and 15 give it
  EXPECT_EQ(info.wProcessorRevision, model << 8 | (signature & 15));
  SIZE_T minimum = 0, maximum = 0;
  EXPECT_CALL(GetProcessWorkingSetSize(GetCurrentProcess(), &minimum, &maximum), TRUE, kUntouched);
  EXPECT_GT(minimum, 0u);
  EXPECT_LE(minimum, maximum);
}

TEST(UserName, FitsOrNot) {
  WCHAR name[257] = L"$$";
  DWORD size = 257;
  EXPECT_CALL(GetUserNameW(name, &size), TRUE, kUntouched);
  const DWORD length = std::wcslen(name);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(size, length + 1) << "counts the end";
  for (const DWORD tooSmall : {0ul, 1ul, length}) {
    WCHAR untouched[257] = L"$$";
    size = tooSmall;
    EXPECT_CALL(GetUserNameW(untouched, &size), FALSE, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, length + 1);
    EXPECT_EQ(std::wstring(untouched), L"$$");
  }
  size = length + 1;
  EXPECT_CALL(GetUserNameW(name, &size), TRUE, kUntouched);
}

std::string ProgramPath() {
  char path[1024] = "";
  EXPECT_CALL(GetModuleFileNameA(nullptr, path, sizeof path), std::strlen(path), 0);
  return path;
}

TEST(Module, NameOfTheProgram) {
  const std::string path = ProgramPath();
  EXPECT_TRUE(std::filesystem::exists(path)) << path;
  EXPECT_NE(path.find("platform_system_test"), std::string::npos);
  wchar_t wide[1024] = L"";
  EXPECT_CALL(GetModuleFileNameW(nullptr, wide, 1024), path.size(), 0);
  EXPECT_EQ(std::filesystem::path(wide), std::filesystem::path(path));
  std::vector<char> exact(path.size() + 2, '#');
  EXPECT_CALL(GetModuleFileNameA(nullptr, exact.data(), path.size() + 1), path.size(), 0);
  EXPECT_EQ(exact[path.size() + 1], '#');
  std::vector<char> cut(path.size() + 1, '#');
  EXPECT_CALL(GetModuleFileNameA(nullptr, cut.data(), path.size()), path.size(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(path.substr(0, path.size() - 1), std::string(cut.data(), path.size() - 1));
  EXPECT_EQ(cut[path.size()], '#') << "nothing is written behind the buffer";
  EXPECT_EQ(cut[path.size() - 1], '\0');
}

TEST(Module, InformationOfTheProgram) {
  const HMODULE program = GetModuleHandleA(nullptr);
  MODULEINFO by_null = {}, by_handle = {};
  EXPECT_CALL(GetModuleInformation(GetCurrentProcess(), nullptr, &by_null, sizeof by_null), TRUE, kUntouched);
  EXPECT_CALL(GetModuleInformation(GetCurrentProcess(), program, &by_handle, sizeof by_handle), TRUE, kUntouched);
  EXPECT_EQ(by_null.lpBaseOfDll, static_cast<void*>(program));
  EXPECT_EQ(by_handle.lpBaseOfDll, static_cast<void*>(program));
  const auto inside = [&](const void* address) {
    return static_cast<const char*>(address) - static_cast<const char*>(by_null.lpBaseOfDll);
  };
  EXPECT_LT(static_cast<DWORD>(inside(by_null.EntryPoint)), by_null.SizeOfImage);
  EXPECT_LT(static_cast<DWORD>(inside(reinterpret_cast<void*>(&ProgramPath))), by_null.SizeOfImage);
  EXPECT_CALL(GetModuleInformation(GetCurrentProcess(), program, &by_null, sizeof by_null - 1), FALSE,
              ERROR_INSUFFICIENT_BUFFER);
  EXPECT_CALL(GetModuleInformation(GetCurrentProcess(), reinterpret_cast<HMODULE>(0x10000), &by_null, sizeof by_null),
              FALSE, ERROR_INVALID_HANDLE);
  EXPECT_CALL(GetModuleInformation(nullptr, program, &by_null, sizeof by_null), FALSE, ERROR_INVALID_HANDLE);
}

TEST(Module, LibrariesHaveNames) {
  MEMORY_BASIC_INFORMATION region = {};
  ASSERT_NE(VirtualQuery(reinterpret_cast<void*>(&std::abort), &region, sizeof region), 0u);
  const auto library = static_cast<HMODULE>(region.AllocationBase);
  char path[1024] = "";
  EXPECT_GT(GetModuleFileNameA(library, path, sizeof path), 0u);
  EXPECT_NE(std::string(path).find("libc.so"), std::string::npos) << path;
  EXPECT_CALL(GetModuleFileNameA(reinterpret_cast<HMODULE>(0x10000), path, sizeof path), 0u, ERROR_MOD_NOT_FOUND);
}

TEST(Module, LookUpAtRunTime) {
  const HMODULE module = LoadLibraryA("ntdll.dll");
  ASSERT_NE(module, nullptr);
  EXPECT_NE(GetProcAddress(module, "RtlGetVersion"), nullptr);
  EXPECT_CALL(GetProcAddress(module, "NoSuchFunction"), nullptr, ERROR_PROC_NOT_FOUND);
  EXPECT_CALL(FreeLibrary(module), TRUE, kUntouched);
  EXPECT_CALL(LoadLibraryA("no-such-module.dll"), nullptr, ERROR_MOD_NOT_FOUND);
  EXPECT_CALL(GetModuleHandleA("no-such-module.dll"), nullptr, ERROR_MOD_NOT_FOUND);
  EXPECT_CALL(FreeLibrary(nullptr), FALSE, ERROR_INVALID_HANDLE);
}

TEST(Version, OfTheSystem) {
  using Query = LONG(WINAPI*)(OSVERSIONINFOEXW*);
  const auto query =
      reinterpret_cast<Query>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetVersion")));
  ASSERT_NE(query, nullptr);
  OSVERSIONINFOEXW version = {};
  version.dwOSVersionInfoSize = sizeof version;
  EXPECT_CALL(query(&version), 0, kUntouched);
  EXPECT_EQ(version.dwPlatformId, 2u);
  EXPECT_EQ(version.wProductType, 1);
  EXPECT_EQ(version.dwMajorVersion, 6u);
  EXPECT_EQ(version.dwMinorVersion, 1u);
  EXPECT_EQ(version.dwBuildNumber, 7601u);
  EXPECT_EQ(std::wstring(version.szCSDVersion).substr(0, 6), L"Linux ");
  OSVERSIONINFOEXW plain;
  std::memset(&plain, 0xEE, sizeof plain);
  plain.dwOSVersionInfoSize = 0;
  EXPECT_EQ(query(&plain), 0);
  EXPECT_EQ(plain.dwBuildNumber, version.dwBuildNumber);
  EXPECT_EQ(plain.wSuiteMask, 0xEEEE) << "only a whole record is filled to its end";
}

TEST(Disks, RootsTypesAndSpace) {
  char roots[4096];
  SetLastError(kUntouched);
  const DWORD length = GetLogicalDriveStringsA(sizeof roots, roots);
  EXPECT_EQ(GetLastError(), kUntouched);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(roots[length], 0) << "an empty name ends the list";
  EXPECT_EQ(roots[length - 1], 0);
  EXPECT_EQ(GetLogicalDriveStringsA(0, nullptr), length + 1);
  char small[2] = {'#', '#'};
  EXPECT_EQ(GetLogicalDriveStringsA(1, small), length + 1);
  bool anyFixed = false;
  for (const char* root = roots; *root; root += std::strlen(root) + 1) {
    EXPECT_EQ(root[std::strlen(root) - 1], '/') << root;
    const UINT type = GetDriveTypeA(root);
    EXPECT_GE(type, DRIVE_REMOVABLE) << root;
    ULARGE_INTEGER available = {}, total = {}, free = {};
    if (type != DRIVE_FIXED) continue;
    anyFixed = true;
    SetLastError(kUntouched);
    ASSERT_TRUE(GetDiskFreeSpaceExA(root, &available, &total, &free)) << root;
    EXPECT_LE(available.QuadPart, total.QuadPart);
    EXPECT_LE(free.QuadPart, total.QuadPart);
  }
  EXPECT_TRUE(anyFixed);
  EXPECT_TRUE(GetDiskFreeSpaceExA(nullptr, nullptr, nullptr, nullptr)) << "the current disk";
  EXPECT_CALL(GetDiskFreeSpaceExA("/no-such-folder/x", nullptr, nullptr, nullptr), FALSE, ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(GetDriveTypeA("no-such-disk"), DRIVE_NO_ROOT_DIR);
}

TEST(Beeper, Frequencies) {
  for (const DWORD frequency : {0ul, 36ul, 32768ul}) EXPECT_CALL(Beep(frequency, 1), FALSE, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(Beep(37, 1), TRUE, kUntouched);
}

TEST(Profile, MissingKey) {
  char text[16] = "#";
  EXPECT_CALL(GetProfileStringA("qel-no-such-section", "key", nullptr, text, sizeof text), 0u, 0);
  EXPECT_STREQ(text, "");
  EXPECT_CALL(GetProfileStringA("qel-no-such-section", "key", "abc  ", text, sizeof text), 3u, 0);
  EXPECT_STREQ(text, "abc");
  EXPECT_CALL(GetProfileStringA("qel-no-such-section", "key", "abcdef", text, 4), 3u, 0);
  EXPECT_STREQ(text, "abc");
  EXPECT_CALL(GetProfileStringA(nullptr, "key", nullptr, text, sizeof text), 0u, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(GetProfileStringA("section", nullptr, nullptr, text, sizeof text), 0u, ERROR_INVALID_PARAMETER);
}

}  // namespace
