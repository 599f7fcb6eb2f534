// The reading of the memory map, on texts of all kinds.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "qelibaselib/platform/linux/memory/page_set.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

using namespace qel::layer;

namespace {

struct KnownOwners : MemoryOwners {
  std::map<uint32_t, MemoryOwner> known;  // by the address that each begins at
  MemoryOwner At(uint32_t address) override {
    auto next = known.upper_bound(address);
    MemoryOwner owner;
    if (next != known.end()) owner.until = next->first;
    if (next == known.begin()) return owner;
    --next;
    return address < next->second.until ? next->second : owner;
  }
};

std::vector<AddressRegion> Regions(const std::string& text, uint32_t from = 0, KnownOwners owners = {}) {
  RegionList list;
  RegionBuilder builder(from, &owners, &list);
  LineCutter cutter(text);
  MapLine parsed;
  for (std::string_view line; cutter.Next(&line);)
    if (ParseMapLine(line, &parsed)) {
      EXPECT_TRUE(builder.Add(parsed));
    }
  EXPECT_TRUE(builder.Finish());
  std::vector<AddressRegion> regions;
  for (uint32_t i = 0; i < list.size(); ++i) regions.push_back(list[i]);
  list.Free();
  return regions;
}

TEST(MapLine, AllFields) {
  MapLine line;
  ASSERT_TRUE(ParseMapLine("f7d53000-f7d75000 r-xp 00022000 fe:0a 335353        /usr/lib32/libc.so.6", &line));
  EXPECT_EQ(line.start, 0xf7d53000u);
  EXPECT_EQ(line.end, 0xf7d75000u);
  EXPECT_TRUE(line.read && line.execute);
  EXPECT_FALSE(line.write || line.shared);
  EXPECT_EQ(line.offset, 0x22000u);
  EXPECT_EQ(line.device, 0xfe0000au);
  EXPECT_EQ(line.inode, 335353u);
  ASSERT_TRUE(ParseMapLine("00010000-ffffe000 -w-s 1fffff000 00:01 18446744073709551615", &line));
  EXPECT_TRUE(line.shared && line.write);
  EXPECT_EQ(line.offset, 0x1fffff000u);
  EXPECT_EQ(line.inode, UINT64_MAX);
}

TEST(MapLine, WhatIsNone) {
  MapLine line;
  const std::string range = "f7d53000-f7d75000 ", whole = range + "r-xp 00022000 fe:0a 3";
  for (const std::string& text : std::initializer_list<std::string>{
           std::string("\n"), "x" + whole, "F" + whole.substr(1), "7fff" + whole, "f7d75000-f7d53000 r-xp 0 0:0 0",
           "f7d53001-f7d75000 r-xp 0 0:0 0", range + "rqxp 0 0:0 0", range + "r-xp 0 0: 0",
           range + "r-xp 0 0:0 99999999999999999999", range + "r-xp fffffffffffffffff 0:0 0"})
    EXPECT_FALSE(ParseMapLine(text, &line)) << text;
  for (size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(ParseMapLine(std::string_view(whole).substr(0, length), &line)) << length;
}

TEST(Regions, CoverAllFourGigabytes) {
  const auto regions = Regions(
      "08048000-08049000 r-xp 00000000 fe:00 7 /bin/x\n"
      "08049000-0804b000 rw-p 00001000 fe:00 7 /bin/x\n"
      "garbage\n"
      "0804b000-0804c000 rw-p 00000000 00:00 0 [heap]\n"
      "f0000000-f0001000 ---p 00000000 00:00 0\n"
      "f0001000-f0002000 r--s 00000000 00:05 9 /memfd:a (deleted)\n");
  ASSERT_EQ(regions.size(), 8u);
  uint64_t end = 0;
  for (const AddressRegion& region : regions) {
    EXPECT_EQ(region.start, end);
    end = region.end;
  }
  EXPECT_EQ(end, kAddressSpaceEnd);
  EXPECT_EQ(regions[0].state, MEM_FREE);
  EXPECT_EQ(regions[1].type, MEM_MAPPED);
  EXPECT_EQ(regions[1].protect, PAGE_EXECUTE_READ);
  EXPECT_EQ(regions[2].allocationBase, 0x08048000u) << "the same file goes on";
  EXPECT_EQ(regions[2].protect, PAGE_WRITECOPY);
  EXPECT_EQ(regions[3].type, MEM_PRIVATE);
  EXPECT_EQ(regions[3].protect, PAGE_READWRITE);
  EXPECT_EQ(regions[5].state, MEM_RESERVE);
  EXPECT_EQ(regions[5].protect, 0u);
  EXPECT_EQ(regions[6].protect, PAGE_READONLY);
  EXPECT_EQ(regions[7].end, kAddressSpaceEnd);
}

TEST(Regions, OwnersSplitAndJoinLines) {
  KnownOwners owners;
  owners.known[0x10000] = {MEM_PRIVATE, 0x10000, 0x20000, PAGE_READWRITE, false};
  owners.known[0x20000] = {MEM_PRIVATE, 0x20000, 0x30000, PAGE_READWRITE, false};
  owners.known[0x40000] = {MEM_IMAGE, 0x40000, 0x43000, PAGE_EXECUTE_WRITECOPY, false};
  const auto regions = Regions(
      "00010000-00030000 rw-p 00000000 00:00 0\n"
      "00040000-00041000 r--p 00000000 fe:00 7 /lib/x\n"
      "00041000-00042000 r--p 00005000 fe:00 7 /lib/x\n"
      "00042000-00045000 rw-p 00000000 00:00 0\n",
      0, owners);
  ASSERT_EQ(regions.size(), 8u);
  EXPECT_EQ(regions[1].end, 0x20000u);
  EXPECT_EQ(regions[2].allocationBase, 0x20000u);
  EXPECT_EQ(regions[4].start, 0x40000u);
  EXPECT_EQ(regions[4].end, 0x42000u) << "alike in one module";
  EXPECT_EQ(regions[5].type, MEM_IMAGE);
  EXPECT_EQ(regions[5].end, 0x43000u);
  EXPECT_EQ(regions[6].type, MEM_PRIVATE);
}

TEST(Regions, FromTheMiddle) {
  const std::string map =
      "00010000-00020000 rw-p 00000000 00:00 0\n"
      "00030000-00040000 rw-p 00000000 00:00 0\n";
  const std::pair<uint32_t, uint32_t> rows[] = {
      {0x15000, 0x10000}, {0x25000, 0x20000}, {0x35000, 0x30000}, {0xFFFFF000, 0x40000}};
  for (const auto& [from, start] : rows) EXPECT_EQ(Regions(map, from)[0].start, start) << std::hex << from;
  EXPECT_EQ(Regions(map, 0x35000).size(), 2u);
  const auto regions = Regions("");
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(regions[0].state, MEM_FREE);
  EXPECT_EQ(regions[0].end, kAddressSpaceEnd);
}

// The map can change while it is read: a line may come twice, longer, or out of order.
TEST(Regions, LinesThatOverlap) {
  const auto regions = Regions(
      "00010000-00020000 rw-p 00000000 00:00 0\n"
      "00018000-00028000 r--p 00000000 00:00 0\n"
      "00010000-00014000 r-xp 00000000 00:00 0\n");
  ASSERT_EQ(regions.size(), 4u);
  EXPECT_EQ(regions[2].start, 0x20000u);
  EXPECT_EQ(regions[2].end, 0x28000u);
}

TEST(Regions, ManyOfThem) {
  std::string text;
  char line[64];
  for (uint32_t i = 0; i < 5000; ++i) {
    std::snprintf(line, sizeof line, "%08x-%08x rw-p 00000000 00:00 0\n", 0x100000 + i * 0x2000, 0x101000 + i * 0x2000);
    text += line;
  }
  EXPECT_EQ(Regions(text).size(), 10001u);
}

TEST(PageSet, AgreesWithSinglePages) {
  PageSet set;
  std::vector<bool> pages(64);
  uint32_t seed = 1;
  const auto next = [&](uint32_t limit) { return (seed = seed * 1103515245 + 12345) / 65536 % limit; };
  for (int i = 0; i < 3000; ++i) {
    const uint32_t start = next(64), end = start + next(65 - start);
    const bool adds = next(2) == 0;
    adds ? set.Add(start * kPageSize, end * kPageSize) : set.Remove(start * kPageSize, end * kPageSize);
    for (uint32_t page = start; page < end; ++page) pages[page] = adds;
    const uint32_t probe = next(64);
    ASSERT_EQ(set.Contains(probe * kPageSize, (probe + 1) * kPageSize), pages[probe]) << i;
    uint32_t change = probe;
    while (change < 64 && pages[change] == pages[probe]) ++change;
    ASSERT_EQ(set.ChangeAfter(probe * kPageSize, 64 * kPageSize), change * kPageSize) << i;
    std::vector<bool> within(64);
    set.Within(start * kPageSize, end * kPageSize).ForEach([&](uint32_t first, uint64_t last) {
      for (uint64_t page = first / kPageSize; page < last / kPageSize; ++page) within[page] = true;
    });
    for (uint32_t page = 0; page < 64; ++page)
      ASSERT_EQ(within[page], pages[page] && page >= start && page < end) << i << ' ' << page;
  }
}

}  // namespace
