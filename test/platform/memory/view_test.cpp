// Where views lie, and which protections their pages may have.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "test/platform/memory/mapped_file.h"
#include "test/support/open_handles.h"

using namespace qel::test;

namespace {

TEST(View, PlacesAreMultiplesOf64KiB) {
  const MappedFile file(3 * kGranularity);
  const Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE));
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

// No page of a view is ever allowed more than the view was mapped for, and a page that copies keeps its changes.
TEST(View, ProtectionsStayWithinTheView) {
  const MappedFile file(3 * 4096);
  const Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE));
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
      } else {
        EXPECT_CALL(VirtualProtect(view.base(), 4096, wanted, &previous), FALSE, ERROR_INVALID_PARAMETER);
      }
    }
  }
}

TEST(View, PagesMadeCopyOnWriteKeepTheirChanges) {
  const MappedFile file(4 * 4096);
  const Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE));
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
  const MappedFile file(10);
  const Handle mapping(CreateMapping(file.handle(), PAGE_READWRITE));
  const unsigned long before = OpenHandleCount();
  {
    const View view(mapping, FILE_MAP_READ, 0, 0);
    EXPECT_EQ(OpenHandleCount(), before + 1);
  }
  EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
