// fuzz-sources: qelibaselib/platform/linux/memory/regions.cpp

// The memory map on any text. The first bytes say whom addresses belong to and where the regions begin. Checked beside
// what the sanitizers see: regions follow on each other without a gap up to 4 GiB, none is empty, and no two neighbours
// could be one.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace {

using namespace qel::layer;

constexpr size_t kOwnerBytes = 8;

void Require(bool holds) {
  if (!holds) std::abort();
}

// Owners that follow on each other in steps, some of them nobody's.
class SteppedOwners : public MemoryOwners {
 public:
  explicit SteppedOwners(uint32_t seed) : step_(((seed & 0xFF) + 1) * kGranularityBytes), types_(seed >> 8) {}
  MemoryOwner At(uint32_t address) override {
    constexpr DWORD kTypes[] = {0, MEM_PRIVATE, MEM_MAPPED, MEM_IMAGE};
    const uint32_t number = address / step_;
    MemoryOwner owner;
    owner.type = kTypes[types_ >> number % 12 * 2 & 3];
    owner.base = number * step_;
    owner.until = uint64_t{owner.base} + step_;
    owner.allocationProtect = PAGE_READWRITE;
    owner.reserved = (number & 4) != 0;
    return owner;
  }

 private:
  const uint32_t step_, types_;
};

bool CouldBeOne(const AddressRegion& first, const AddressRegion& second) {
  return first.allocationBase == second.allocationBase && first.allocationProtect == second.allocationProtect &&
         first.state == second.state && first.protect == second.protect && first.type == second.type;
}

void CheckRegions(const RegionList& regions, uint32_t from) {
  Require(regions.size() > 0 && regions[0].start <= from && regions[0].end > from);
  for (uint32_t i = 0; i < regions.size(); ++i) {
    Require(regions[i].end > regions[i].start);
    if (i == 0) continue;
    Require(regions[i].start == regions[i - 1].end);
    Require(!CouldBeOne(regions[i - 1], regions[i]));
  }
  Require(regions[regions.size() - 1].end == kAddressSpaceEnd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  if (count < kOwnerBytes) return 0;
  uint32_t seed, from;
  std::memcpy(&seed, bytes, sizeof seed);
  std::memcpy(&from, bytes + sizeof seed, sizeof from);
  from = PageOf(from);
  SteppedOwners owners(seed);
  RegionList regions;
  RegionBuilder builder(from, &owners, &regions);
  LineCutter cutter({reinterpret_cast<const char*>(bytes) + kOwnerBytes, count - kOwnerBytes});
  MapLine parsed;
  for (std::string_view line; cutter.Next(&line);)
    if (ParseMapLine(line, &parsed)) builder.Add(parsed);
  builder.Finish();
  CheckRegions(regions, from);
  regions.Free();
  return 0;
}
