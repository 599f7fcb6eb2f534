// Views: what may be mapped where, unmapping, flushing, and that all ways into a file show the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>
#include <vector>

#include "test/platform/memory/mapped_file.h"
#include "test/support/open_handles.h"

using namespace qel::test;

namespace {

constexpr DWORD kGranularity = 0x10000;

HANDLE Create(HANDLE file, DWORD protection, DWORD bytes = 0) {
  return CreateFileMappingW(file, nullptr, protection, 0, bytes, nullptr);
}

TEST(View, RangesInsideTheMapping) {
  const MappedFile file(kGranularity + 10);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  EXPECT_CALL(MapViewOfFile(mapping, FILE_MAP_READ, 0, 4096, 0), nullptr, ERROR_MAPPED_ALIGNMENT);
  EXPECT_CALL(MapViewOfFile(mapping, FILE_MAP_READ, 0, kGranularity, 11), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_CALL(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, kGranularity + 11), nullptr, ERROR_ACCESS_DENIED);
  EXPECT_CALL(MapViewOfFile(mapping, FILE_MAP_READ, 0, 2 * kGranularity, 0), nullptr,
              ByTarget<DWORD>(ERROR_ACCESS_DENIED, ERROR_INVALID_PARAMETER));
  SetLastError(kUntouched);
  const View last(mapping, FILE_MAP_READ, kGranularity, 10), rest(mapping, FILE_MAP_READ, kGranularity, 0);
  EXPECT_EQ(GetLastError(), kUntouched);
  ASSERT_TRUE(last && rest);
  EXPECT_EQ(rest[9], 'x');
  EXPECT_EQ(rest[10], 0) << "behind the end of the file";

  const Handle memory(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 100));
  EXPECT_TRUE(View(memory, FILE_MAP_READ, 0, 4096)) << "the page file counts by the page";
  EXPECT_CALL(MapViewOfFile(memory, FILE_MAP_READ, 0, 0, 4097), nullptr, ERROR_ACCESS_DENIED);
}

TEST(View, ProtectionOfTheMapping) {
  const MappedFile file(10);
  const Handle reading(Create(file.handle(), PAGE_READONLY)), copying(Create(file.handle(), PAGE_WRITECOPY)),
      event(NewEvent());
  for (const DWORD access : std::initializer_list<DWORD>{FILE_MAP_WRITE, FILE_MAP_ALL_ACCESS})
    EXPECT_CALL(MapViewOfFile(reading, access, 0, 0, 0), nullptr, ERROR_ACCESS_DENIED);
  for (const HANDLE bad : {HANDLE(nullptr), INVALID_HANDLE_VALUE, file.handle(), HANDLE(event)})
    EXPECT_CALL(MapViewOfFile(bad, FILE_MAP_READ, 0, 0, 0), nullptr, ERROR_INVALID_HANDLE);
  {
    const View copy(copying, FILE_MAP_COPY, 0, 0), shown(reading, FILE_MAP_READ, 0, 0);
    copy[0] = 'c';
    EXPECT_EQ(shown[0], 'x');
  }
  EXPECT_EQ(file.Contents(), std::string(10, 'x')) << "a copy is the view's own";
  const View nothing(reading, 0, 0, 0);
  ASSERT_TRUE(nothing);
  EXPECT_EQ(Query(nothing.base()).Protect, PAGE_NOACCESS);
}

TEST(View, PlacesAreMultiplesOf64KiB) {
  const MappedFile file(3 * kGranularity);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  std::vector<View> views;
  std::set<uintptr_t> places;
  for (SIZE_T bytes = 1; bytes < 3 * kGranularity; bytes += 7777) {
    views.emplace_back(mapping, FILE_MAP_READ, 0, bytes);
    const auto place = reinterpret_cast<uintptr_t>(views.back().base());
    ASSERT_NE(place, 0u);
    EXPECT_EQ(place % kGranularity, 0u);
    EXPECT_LT(place, 0x80000000u);
    EXPECT_TRUE(places.insert(place).second);
  }
}

TEST(View, OneFileByAllWays) {
  MappedFile file(10);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  View view(mapping, FILE_MAP_WRITE, 0, 0);
  view[0] = 'v';
  char bytes[4] = {};
  DWORD count = 0;
  ASSERT_TRUE(ReadFile(file.handle(), bytes, 2, &count, nullptr));
  EXPECT_EQ(std::string(bytes), "vx");
  ASSERT_TRUE(WriteFile(file.handle(), "w", 1, &count, nullptr));
  EXPECT_EQ(view[2], 'w');
  view[3] = 'y';
  file.Close();
  EXPECT_EQ(view[3], 'y');
  EXPECT_EQ(file.Contents(), "vxwyxxxxxx") << "a view needs no handle";
}

TEST(View, UnmapByAnyAddressInside) {
  const MappedFile file(10000);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  for (const SIZE_T inside : {0, 5000, 10000}) {
    char* const base = View(mapping, FILE_MAP_WRITE, 0, 0).Release();
    EXPECT_CALL(UnmapViewOfFile(base + inside), TRUE, kUntouched);
    EXPECT_EQ(Query(base + 8192).State, MEM_FREE) << "the whole view goes";
    EXPECT_CALL(UnmapViewOfFile(base), FALSE, ERROR_INVALID_ADDRESS);
  }
  char local = 0;
  void* const block = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
  for (void* const bad :
       {static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234), static_cast<void*>(&local), block})
    EXPECT_CALL(UnmapViewOfFile(bad), FALSE, ERROR_INVALID_ADDRESS);
  VirtualFree(block, 0, MEM_RELEASE);
}

TEST(View, Flush) {
  MappedFile file(2 * kGranularity);
  Handle mapping(Create(file.handle(), PAGE_READWRITE));
  const View view(mapping, FILE_MAP_WRITE, 0, kGranularity), second(mapping, FILE_MAP_WRITE, kGranularity, 0),
      copy(mapping, FILE_MAP_COPY, 0, 0), reading(mapping, FILE_MAP_READ, 0, 0);
  const Handle memory(Create(INVALID_HANDLE_VALUE, PAGE_READWRITE, 4096)), other = file.Open(GENERIC_READ);
  const View pages(memory, FILE_MAP_WRITE, 0, 0);
  view[0] = copy[0] = pages[0] = 'f';
  for (char* const address : {view.base(), view.base() + 5000, copy.base(), reading.base(), pages.base()})
    EXPECT_CALL(FlushViewOfFile(address, 0), TRUE, kUntouched);
  EXPECT_CALL(FlushViewOfFile(view.base() + 100, 8000), TRUE, kUntouched);
  EXPECT_CALL(FlushViewOfFile(view.base(), kGranularity + 1), FALSE, ERROR_INVALID_PARAMETER);
  OVERLAPPED place = {};
  place.Offset = kGranularity + 5;
  ASSERT_TRUE(LockFileEx(other, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place));
  if (kLinux) {  // Wine flushes without looking at locks
    EXPECT_CALL(FlushViewOfFile(second.base(), 0), FALSE, ERROR_LOCK_VIOLATION);
  }
  EXPECT_CALL(FlushViewOfFile(view.base(), 0), TRUE, kUntouched);
  ASSERT_TRUE(UnlockFileEx(other, 0, 1, 0, &place));
  EXPECT_CALL(FlushViewOfFile(second.base(), 0), TRUE, kUntouched);
  mapping.Close();
  file.Close();
  EXPECT_CALL(FlushViewOfFile(view.base(), 0), TRUE, kUntouched);
  EXPECT_CALL(FlushViewOfFile(nullptr, 0), FALSE, ByTarget<DWORD>(ERROR_INVALID_ADDRESS, ERROR_INVALID_PARAMETER));
}

TEST(View, Queries) {
  const MappedFile file(3 * 4096 + 1);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  const std::pair<DWORD, DWORD> kinds[] = {
      {FILE_MAP_WRITE, PAGE_READWRITE}, {FILE_MAP_READ, PAGE_READONLY}, {FILE_MAP_COPY, PAGE_WRITECOPY}};
  for (const auto& [access, protection] : kinds) {
    const View view(mapping, access, 0, 0);
    const MEMORY_BASIC_INFORMATION whole = Query(view.base()), rest = Query(view.base() + 0x1005);
    EXPECT_EQ(whole.BaseAddress, view.base());
    EXPECT_EQ(whole.AllocationBase, view.base());
    EXPECT_EQ(whole.RegionSize, 4u * 4096);
    EXPECT_EQ(whole.State, MEM_COMMIT);
    EXPECT_EQ(whole.Protect, protection);
    EXPECT_EQ(whole.AllocationProtect, protection);
    EXPECT_EQ(whole.Type, MEM_MAPPED);
    EXPECT_EQ(rest.BaseAddress, view.base() + 0x1000);
    EXPECT_EQ(rest.AllocationBase, view.base());
    EXPECT_EQ(rest.RegionSize, 3u * 4096);
  }
}

// No page of a view is ever allowed more than the view was mapped for, and a page that copies keeps its changes.
TEST(View, ProtectionsStayWithinTheView) {
  const MappedFile file(3 * 4096);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  const struct {
    DWORD access;
    std::vector<DWORD> allowed;
  } rows[] = {
      {0, {PAGE_NOACCESS}},
      {FILE_MAP_READ, {PAGE_NOACCESS, PAGE_READONLY, PAGE_WRITECOPY}},
      {FILE_MAP_COPY, {PAGE_NOACCESS, PAGE_READONLY, PAGE_WRITECOPY}},
      {FILE_MAP_WRITE, {PAGE_NOACCESS, PAGE_READWRITE, PAGE_READONLY, PAGE_WRITECOPY}},
  };
  for (const auto& [access, allowed] : rows) {
    const View view(mapping, access, 0, 0);
    ASSERT_TRUE(view);
    for (const DWORD wanted : {PAGE_NOACCESS, PAGE_READONLY, PAGE_READWRITE, PAGE_WRITECOPY, PAGE_EXECUTE,
                               PAGE_EXECUTE_READ, PAGE_EXECUTE_READWRITE, PAGE_EXECUTE_WRITECOPY}) {
      SCOPED_TRACE(testing::Message() << "access " << access << ", protection " << wanted);
      DWORD previous = 0;
      if (std::find(allowed.begin(), allowed.end(), wanted) != allowed.end()) {
        EXPECT_CALL(VirtualProtect(view.base(), 4096, wanted, &previous), TRUE, kUntouched);
        EXPECT_EQ(Query(view.base()).Protect, wanted);
      } else if (kLinux) {  // Wine allows more
        EXPECT_CALL(VirtualProtect(view.base(), 4096, wanted, &previous), FALSE, ERROR_INVALID_PARAMETER);
      }
    }
  }
}

TEST(View, PagesMadeCopyOnWriteKeepTheirChanges) {
  if (!kLinux) GTEST_SKIP() << "Wine goes on sharing them";
  const MappedFile file(4 * 4096);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  const View view(mapping, FILE_MAP_WRITE, 0, 0);
  char* const copied = view.base() + 4096;
  DWORD previous = 0;
  ASSERT_TRUE(VirtualProtect(copied, 4096, PAGE_WRITECOPY, &previous));
  copied[0] = 'c';
  EXPECT_TRUE(VirtualProtect(copied, 4096, PAGE_READONLY, &previous));
  EXPECT_TRUE(VirtualProtect(copied, 2 * 4096, PAGE_WRITECOPY, &previous)) << "the second page for the first time";
  EXPECT_EQ(copied[0], 'c') << "the change outlives other protections";
  copied[4096] = 'd';
  EXPECT_CALL(VirtualProtect(view.base(), 2 * 4096, PAGE_READWRITE, &previous), FALSE, ERROR_INVALID_PARAMETER);
  view[0] = view[3 * 4096] = 'f';
  std::string expected(4 * 4096, 'x');
  expected[0] = expected[3 * 4096] = 'f';
  EXPECT_EQ(file.Contents(), expected);
}

TEST(View, CountsAsOpen) {
  if (!kLinux) GTEST_SKIP() << "Wine counts nothing";
  const MappedFile file(10);
  const Handle mapping(Create(file.handle(), PAGE_READWRITE));
  const unsigned long before = OpenHandleCount();
  {
    const View view(mapping, FILE_MAP_READ, 0, 0);
    EXPECT_EQ(OpenHandleCount(), before + 1);
  }
  EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
