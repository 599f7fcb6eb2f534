// A file object, its mappings and their views have one descriptor together.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <optional>

#include "test/platform/memory/mapped_file.h"

using namespace qel::test;

namespace {

constexpr DWORD kBytes = 65536;

size_t CountOpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd"), end;
  return static_cast<size_t>(std::distance(all, end));
}

// The first view opens what the layer keeps open for all.
void MapOnce() {
  const MappedFile file(kBytes);
  const Handle mapping(CreateFileMappingW(file.handle(), nullptr, PAGE_READONLY, 0, 0, nullptr));
  EXPECT_TRUE(View(mapping, FILE_MAP_READ, 0, kBytes));
}

TEST(MappingDescriptor, LivesUntilTheLastOfFileMappingAndView) {
  MapOnce();
  const size_t before = CountOpenDescriptors();
  MappedFile file(kBytes);
  const size_t withFile = CountOpenDescriptors();
  ASSERT_GT(withFile, before);
  std::optional<View> view;
  {
    const Handle mapping(CreateFileMappingW(file.handle(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
    const Handle second(CreateFileMappingW(file.handle(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    EXPECT_EQ(CountOpenDescriptors(), withFile);
    file.Close();
    EXPECT_EQ(CountOpenDescriptors(), withFile);
    view.emplace(mapping, FILE_MAP_WRITE, 0, kBytes);
    ASSERT_TRUE(*view);
  }
  EXPECT_EQ(CountOpenDescriptors(), withFile);
  view.reset();
  EXPECT_EQ(CountOpenDescriptors(), before);
}

TEST(MappingDescriptor, EndsWithTheFileWhenItsMappingsEndedFirst) {
  MapOnce();
  const size_t before = CountOpenDescriptors();
  MappedFile file(kBytes);
  Handle(CreateFileMappingW(file.handle(), nullptr, PAGE_READONLY, 0, 0, nullptr)).Close();
  DWORD read = 0;
  char byte = 0;
  EXPECT_TRUE(ReadFile(file.handle(), &byte, 1, &read, nullptr));
  file.Close();
  EXPECT_EQ(CountOpenDescriptors(), before);
}

}  // namespace
